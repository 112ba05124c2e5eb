#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# A replica, its source's host and the server between them show each other certificates, and talk TLS: a first copy, changes and a
# comparison. A replica with a certificate of somebody else's authority gets nothing, nor does one that is led to somebody else's
# server, which could feed it anything; each says why, and goes on when that is mended.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
. "$(dirname "$0")/replica.bash"
command -v openssl >/dev/null || fail "openssl is missing: make deps"

# authority NAME: in $T/NAME, with certificates for the server, the source's host and the replica. Keys are readable to their
# owner alone; the replica's is its user's.
authority() {
  local one
  mkdir -m 711 "$T/$1"
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=$1" -keyout "$T/$1/ca.key" \
    -out "$T/$1/ca.pem" 2>/dev/null
  for one in server source one; do
    printf 'subjectAltName=DNS:localhost\n' >"$T/$1/$one.ext"
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$one" -keyout "$T/$1/$one.key" \
      -out "$T/$1/$one.csr" 2>/dev/null
    openssl x509 -req -in "$T/$1/$one.csr" -CA "$T/$1/ca.pem" -CAkey "$T/$1/ca.key" -CAcreateserial -days 2 \
      -extfile "$T/$1/$one.ext" -out "$T/$1/$one.pem" 2>/dev/null
    chmod 600 "$T/$1/$one.key"
  done
  chown 12345:12345 "$T/$1/one.key"
}
tls_of() { # AUTHORITY
  printf 'tls { cert_file: "%s", key_file: "%s", ca_file: "%s", verify: true, timeout: 5 }' "$T/$1/server.pem" "$T/$1/server.key" \
    "$T/$1/ca.pem"
}
# servers NAME: whom it trusts is in TRUSTS, and who has signed what it shows in SHOWS.
TRUSTS=ours SHOWS=ours
servers() {
  printf 'servers = ["tls://localhost:%s"]\nstream = "data"\n' "$NATS_PORT"
  printf 'ca = "%s"\ncertificate = "%s"\nkey = "%s"\n' "$T/$TRUSTS/ca.pem" "$T/$SHOWS/$1.pem" "$T/$SHOWS/$1.key"
}
tells() { { replica_verb one status 2>/dev/null || true; } | grep -F "$1" >/dev/null; }
# waits_outside TEXT: the replica is up, says so, and has nothing.
said() { grep -F "$1" "$T/one.err" >/dev/null; }
waits_outside() {
  wait_until 30 "the replica says why it has nothing" said "$1"
  if waited one 2>/dev/null; then fail "the replica waits for nothing"; fi
  [ -z "$(ls -A "$T/one")" ] || fail "the replica has got something"
}

chmod 700 "$T/lower"
authority ours
authority foreign
echo before >"$T/lower/before"
head -c 2M /dev/urandom >"$T/lower/large"
start_nats "$(tls_of ours)"
tarn mount "$T/lower" "$T/mnt"
{
  printf 'state = "%s"\n[control]\nsocket = "%s"\n' "$T/service" "$SOCKET"
  printf '[[source]]\nname = "data"\ndirectory = "%s"\n[[source.target]]\nkind = "nats"\nname = "far"\n' "$T/lower"
  servers source
} >"$CONFIG"
start_service
wait_until 60 "the source's log is in the stream" verb wait --timeout 60

# The server does not take what somebody else has signed.
SHOWS=foreign
start_replica one
waits_outside "'certificate'"
kill_replica one
# The replica does not take a server that somebody else has signed.
rm -rf "$T/state-one" "$T/one.err"
TRUSTS=foreign SHOWS=ours
start_replica one
waits_outside "'ca'"
kill_replica one

# shellcheck disable=SC2034 # what servers() reads
TRUSTS=ours SHOWS=ours
start_replica one
replica_equal one
echo after >"$T/mnt/after"
mv "$T/mnt/before" "$T/mnt/moved"
head -c 1M /dev/urandom >>"$T/mnt/large"
replica_equal one
no_gap_of one
replica_verb one verify || fail "verify finds differences"
echo bad >"$T/one/after"
replica_verb one repair || fail "not mended"
replica_equal one

# A server that has lost its certificate is not talked to.
kill_nats
start_nats
echo later >"$T/mnt/later"
wait_until 60 "the replica refuses a server without TLS" tells "no TLS"
[ ! -e "$T/one/later" ] || fail "it came without TLS"
kill_nats
start_nats "$(tls_of ours)"
replica_equal one
no_gap_of one
stop_replicas one
stop_service
