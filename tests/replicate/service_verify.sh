#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Differences made by hand in a target are found by verify, each with its kind, and mended by repair, while a program
# goes on writing; with the exit statuses that the manual tells.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root gives files away" >&2; exit 77; }
WRITER_PID=
cleanup_test() {
  [ -n "$WRITER_PID" ] && kill "$WRITER_PID" 2>/dev/null
  return 0
}
mkdir "$T/second"
chmod 700 "$T/lower" "$T/second"
mkdir -p "$T/lower/d/deep" "$T/lower/busy"
for f in data size mode owner xattr lost time joined link1; do head -c 300000 /dev/urandom >"$T/lower/d/$f"; done
ln "$T/lower/d/link1" "$T/lower/d/link2"
ln -s data "$T/lower/d/symbolic"
echo deep >"$T/lower/d/deep/file"
mkfifo "$T/lower/d/fifo"
setfattr -n user.kind -v source "$T/lower/d/xattr" || { echo "skipped: no extended attributes here" >&2; exit 77; }
tarn mount "$T/lower" "$T/mnt"
configure replica second
start_service
equal replica
equal second
expect_equal() {
  verb verify "$1" >"$T/found" || fail "verify $1 ended with $?: $(cat "$T/found")"
  [ "$(cat "$T/found")" = "$1: equal" ] || fail "not only the summary: $(cat "$T/found")"
}
expect_equal data/replica

# A program goes on writing, beside what is damaged.
(
  trap 'exit 0' TERM
  for ((i = 0; ; i++)); do
    echo "$i" >>"$T/mnt/busy/grows"
    head -c 5000 /dev/urandom >"$T/mnt/busy/f$((i % 20))"
    mv "$T/mnt/busy/f$((i % 20))" "$T/mnt/busy/g$((i % 7))"
    sleep 0.01
  done
) &
WRITER_PID=$!

R="$T/replica/d"
keep_time() { touch -r "$T/lower/d/$1" "$R/$1"; }
printf X | dd of="$R/data" bs=1 seek=150000 conv=notrunc status=none && keep_time data
truncate -s 1000 "$R/size" && keep_time size
chmod 604 "$R/mode"
chown 12345:54321 "$R/owner"
setfattr -n user.kind -v target "$R/xattr"
touch -d '2001-02-03 04:05:06' "$R/time"
touch "$R/extra"
mkdir "$R/extra-directory" && touch "$R/extra-directory/below"
rm "$R/lost"
rm -r "$R/deep" && echo "a file" >"$R/deep"
rm "$R/fifo"
ln -sfn elsewhere "$R/symbolic"
cp -p "$R/link2" "$R/link2.new" && mv "$R/link2.new" "$R/link2"
inode=$(stat -c %i "$R/data")

status=0
verb verify data/replica >"$T/found" 2>"$T/verify.err" || status=$?
[ "$status" -eq 1 ] || fail "verify ended with $status: $(cat "$T/found" "$T/verify.err")"
found() { awk -F'\t' -v path="$1" -v kind="$2" '$1 == "data/replica" && $2 == path && $3 == kind { n++ } END { exit n != 1 }' "$T/found"; }
while read -r path kind; do
  found "$path" "$kind" || fail "no line for $path ($kind): $(cat "$T/found")"
done <<'TEXT'
d/data data
d/size size
d/mode mode
d/owner owner
d/xattr xattr
d/time mtime
d/extra extra
d/extra-directory extra
d/lost missing
d/deep type
d/fifo missing
d/symbolic symlink
TEXT
# A mark that came between may have joined them again.
[ "$R/link1" -ef "$R/link2" ] || awk -F'\t' '$3 == "link" && $2 ~ /^d\/link[12]$/ { n++ } END { exit n == 0 }' "$T/found" ||
  fail "the parted names are not told: $(cat "$T/found")"
if grep "$(printf '\tbusy/')" "$T/found" | grep -v "$(printf '\tchanging\t')"; then fail "what only changes is called different"; fi
tail -n 1 "$T/found" | grep -q "^data/replica: [0-9]* differences; 'mirrord repair data/replica' mends them$" || fail "the summary is $(tail -n 1 "$T/found")"
[ "$(cat "$R/deep")" = "a file" ] && [ -e "$R/extra" ] || fail "verify has changed the target"

# Of all targets, each by its own name.
status=0
verb verify >"$T/found-all" 2>"$T/verify.err" || status=$?
[ "$status" -eq 1 ] || fail "verify of all ended with $status"
if grep -v "^data/replica" "$T/found-all" | grep -v "^data/second: equal$" | grep -v "$(printf '\tchanging\t')"; then
  fail "the untouched target differs: $(cat "$T/found-all")"
fi

status=0
verb repair data/replica >"$T/left" 2>"$T/verify.err" || status=$?
# Only what the program changed meanwhile may be left.
if grep "$(printf '\t')" "$T/left" | grep -v "$(printf '\tchanging\t')"; then fail "not mended: $(cat "$T/left")"; fi
[ "$status" -le 1 ] || fail "repair ended with $status: $(cat "$T/left" "$T/verify.err")"
[ "$(stat -c %i "$R/data")" = "$inode" ] || fail "a file with one other byte was made anew"
kill "$WRITER_PID"
wait "$WRITER_PID" || true
WRITER_PID=
expect_equal data/replica
expect_equal data/second
equal replica
[ "$(getfattr --only-values -n user.kind "$R/xattr")" = source ] || fail "the attribute is not the source's"
verb repair data/replica >"$T/left" || fail "repair of an equal target ended with $?"
[ "$(cat "$T/left")" = "data/replica: equal now" ] || fail "repair of an equal target: $(cat "$T/left")"

# What the module does not capture is found and mended, too.
setfattr -n user.kind -v "set at the source" "$T/lower/d/xattr"
status=0
verb verify data/replica >"$T/found" || status=$?
[ "$status" -eq 1 ] || fail "verify ended with $status"
found d/xattr xattr || fail "the source's attribute is not missed: $(cat "$T/found")"
verb repair data/replica >"$T/left" || fail "repair ended with $?: $(cat "$T/left")"
[ "$(getfattr --only-values -n user.kind "$R/xattr")" = "set at the source" ] || fail "the attribute is not the source's"

# Names that there are not, and comparisons that cannot be done.
fails_with() {
  local expected=$1 status=0
  shift
  verb "$@" >"$T/out" 2>"$T/verify.err" || status=$?
  [ "$status" -eq "$expected" ] || fail "$* ended with $status and not with $expected: $(cat "$T/out" "$T/verify.err")"
  [ "$(wc -l <"$T/verify.err")" -eq 1 ] || fail "not one line from $*: $(cat "$T/verify.err")"
}
fails_with 2 verify data/none
fails_with 2 repair none
verb pause data/second
fails_with 3 verify data/second
fails_with 3 repair data/second
verb resume data/second
equal second
stop_service
fails_with 3 verify data/replica
