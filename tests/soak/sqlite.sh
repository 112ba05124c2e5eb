#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# SQLite with its rollback journal and with its write-ahead log, whose index is memory shared between processes:
# several processes write one database at once, one is killed in the middle. Every transaction that was acknowledged
# is there, none is there in part, and the database's own check is content with the mount's file and the replica's.
. "$(dirname "$0")/common.bash"
require sqlite3

WRITERS=4
TRANSACTIONS=$((15 * SCALE))

SQL=(sqlite3 -batch -bail -cmd '.timeout 60000')
sql() { "${SQL[@]}" "$@"; }

# transactions WRITER: each moves an amount between two accounts, so that the sum stays, and notes that it did.
transactions() {
  local n
  for n in $(seq $TRANSACTIONS); do
    cat <<SQL
BEGIN IMMEDIATE;
UPDATE account SET amount = amount - $n WHERE id = ($1 * 7 + $n) % 100;
UPDATE account SET amount = amount + $n WHERE id = ($1 * 11 + $n * 3) % 100;
INSERT INTO done VALUES ($1, $n, randomblob(($n * 977) % 6000));
COMMIT;
SQL
  done
}

# healthy FILE ROWS: ROWS is what is in the table at the least.
healthy() {
  [ "$(sql "$1" 'PRAGMA integrity_check')" = ok ] || fail "$1: SQLite finds it damaged"
  [ "$(sql "$1" 'SELECT sum(amount) FROM account')" = 100000 ] || fail "$1: a transaction is there in part"
  local rows
  rows=$(sql "$1" 'SELECT count(*) FROM done')
  [ "$rows" -ge "$2" ] || fail "$1: $rows transactions instead of $2 or more"
}

# run_journal MODE
run_journal() {
  local db="$T/mnt/$1.db" writer writers=() rows=$((WRITERS * TRANSACTIONS)) mode
  mode=$(sql "$db" "PRAGMA journal_mode = $1;")
  [ "$mode" = "$1" ] || fail "the journal is of mode $mode instead of $1"
  sql "$db" 'CREATE TABLE account (id INTEGER PRIMARY KEY, amount INTEGER);
    CREATE TABLE done (writer INTEGER, n INTEGER, filling BLOB, PRIMARY KEY (writer, n));
    WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c WHERE i < 99)
    INSERT INTO account SELECT i, 1000 FROM c;'
  for writer in $(seq $WRITERS); do
    transactions "$writer" | sql "$db" 2>"$T/writer-$writer.err" &
    writers+=($!)
  done
  for writer in "${writers[@]}"; do wait "$writer" || fail "a writer of $1.db failed"; done
  healthy "$db" "$rows"

  # A transaction that is under way when its process is killed is as if it had never begun.
  mkfifo "$T/statements"
  "${SQL[@]}" "$db" <"$T/statements" &
  local killed=$!
  exec 9>"$T/statements"
  printf '%s\n' 'PRAGMA cache_size = 10; BEGIN IMMEDIATE; UPDATE account SET amount = 0;' \
    'INSERT INTO done VALUES (99, 1, randomblob(3000000));' ".shell touch $T/under-way" >&9
  wait_until 30 "the transaction is under way" test -e "$T/under-way"
  kill -9 "$killed"
  wait "$killed" 2>/dev/null || true
  exec 9>&-
  rm "$T/under-way" "$T/statements"
  healthy "$db" "$rows"
  sql "$db" 'VACUUM'
  healthy "$db" "$rows"
  catch_up
  cp "$T/replica/$1.db" "$T/copy-$1.db"
  healthy "$T/copy-$1.db" "$rows"
}

start_soak
for mode in delete persist truncate wal; do run_journal $mode; done
end_soak
