#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A PostgreSQL of its own, which runs for one command only; programs.py measures pgbench on it.
# usage: postgres.sh prepare|run DATA SCRATCH TRANSACTIONS
# DATA is made if it is not there; the socket and the server's messages are in SCRATCH, an absolute path.
set -euo pipefail
step=$1 data=$2 scratch=$3 transactions=$4

# It refuses to be run by root.
if [ "$(id -u)" -eq 0 ]; then
  chmod 777 "$scratch"
  [ -d "$data" ] || install -d -m 700 -o postgres "$data"
  exec setpriv --reuid=postgres --regid=postgres --init-groups env -u LC_ALL LANG=C "$0" "$@"
fi

# Debian's own commands choose one of several versions by a configuration that this one is not in.
for folder in /usr/lib/postgresql/*/bin; do PATH=$folder:$PATH; done
export PGHOST=$scratch PGDATABASE=postgres

[ -f "$data/PG_VERSION" ] || initdb -A trust -D "$data" >"$scratch/initdb.log"
postgres -D "$data" -k "$scratch" -c listen_addresses= >>"$scratch/postgres.log" 2>&1 &
server=$!
finish() {
  kill -INT "$server"
  wait "$server" || cat "$scratch/postgres.log"
}
trap finish EXIT
for _ in $(seq 1000); do
  ! pg_isready -q || break
  sleep 0.02
done

case $step in
  prepare) psql -qtc 'SELECT 1 FROM pgbench_accounts LIMIT 1' >/dev/null 2>&1 || pgbench -i -s 2 -q ;;
  run) pgbench -n -c 4 -j 2 -t $((transactions / 4)) 2>&1 ;;
esac
