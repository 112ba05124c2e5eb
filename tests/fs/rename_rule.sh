#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What lies in a replicated directory is moved by the daemon's program only, which is known by the path that it runs
# from: any other is refused with EACCES and one line in the log, and moves nothing. Moving in is everybody's.
. "$(dirname "$0")/../lib.sh"

# configure DIR|- [PROGRAM]: one replicated directory more, and the daemon's program.
configure() {
  python3 - "$HERE/replicate" "$@" <<'PY'
import sys
sys.path.insert(0, sys.argv[1])
sys.dont_write_bytecode = True
import tarn_wire
ADD_DIRECTORY, SET_DAEMON = 190, 193
if sys.argv[2] != "-":
    assert tarn_wire.set_option(ADD_DIRECTORY, bytes(range(16)) + sys.argv[2].encode().ljust(512, b"\0")) == 0
if len(sys.argv) > 3:
    program = sys.argv[3].encode()
    answer = tarn_wire.set_option(SET_DAEMON, program + b"\0")
    assert answer == len(program) + 1, answer
PY
}

blocked() { tarn log | grep -c "tarn_rename:block $1\$" || true; }

# move PROGRAM OLD NEW: a plain rename(2) in the mount by that program.
move() { "$1" -e 'rename($ARGV[0], $ARGV[1]) or die $!{EACCES} ? "EACCES\n" : "$!\n"' "$T/mnt/$2" "$T/mnt/$3"; }

allowed() {
  local before
  before=$(tarn log | grep -c 'tarn_rename:block' || true)
  move "$@" || fail "$1 may not move $2 to $3"
  [ ! -e "$T/lower/$2" ] && [ -e "$T/lower/$3" ] || fail "$2 was not moved to $3"
  [ "$(tarn log | grep -c 'tarn_rename:block')" = "$before" ] || fail "a move that is allowed was logged as blocked"
}

refused() {
  local before answer
  before=$(blocked "$T/lower/$2")
  if answer=$(move "$@" 2>&1); then fail "$1 may move $2 to $3"; fi
  [ "$answer" = EACCES ] || fail "$1 moving $2 to $3: expected EACCES, got $answer"
  [ -e "$T/lower/$2" ] && [ ! -e "$T/lower/$3" ] || fail "$2 was moved though it was refused"
  [ "$(blocked "$T/lower/$2")" = $((before + 1)) ] || fail "not one line more in the log about $2"
}

mkdir "$T/bin" "$T/elsewhere"
daemon="$T/bin/daemon"
cp "$(readlink -f "$(command -v perl)")" "$daemon"
cp "$daemon" "$daemon-too"
cp "$daemon" "$T/bin/daemo"
cp "$daemon" "$T/elsewhere/daemon"
mkdir "$T/lower/in" "$T/lower/in/sub" "$T/lower/inside" "$T/lower/out"
touch "$T/lower/in/f" "$T/lower/in/sub/g" "$T/lower/inside/h" "$T/lower/out/k" "$T/lower/out/m"
tarn mount "$T/lower" "$T/mnt"
configure "$T/lower/in" "$daemon"

echo "an ordinary program"
refused perl in/f in/new
refused perl in/f out/f
refused perl in/sub in/new
refused perl in/sub/g in/sub/new
refused perl in out/in
refused perl inside/h inside/new
allowed perl out/k in/k
allowed perl out/m out/new

echo "the daemon"
allowed "$daemon" in/f in/moved
allowed "$daemon" in/moved out/f
allowed "$daemon" inside/h in/h
allowed "$daemon" in/sub in/renamed

echo "programs whose paths are nearly the daemon's"
refused "$daemon-too" in/k in/new
refused "$T/bin/daemo" in/k in/new
refused "$T/elsewhere/daemon" in/k in/new

# Another program at the daemon's path in a mount name space of its own. Those who may not mount make one in a user name
# space of theirs.
if [ "$(id -u)" -eq 0 ]; then
  echo "a program of another mount name space"
  cat >"$T/elsewhere/in-name-space" <<SH
#!/bin/bash
mount --bind "$T/elsewhere/daemon" "$daemon" && exec "$daemon" "\$@"
SH
  chmod +x "$T/elsewhere/in-name-space"
  unshare --mount --propagation slave "$T/elsewhere/in-name-space" -e 'exit(-e $ARGV[0] ? 0 : 1)' "$T/mnt/in/k" ||
    fail "a mount name space cannot be had"
  in_name_space() { unshare --mount --propagation slave "$T/elsewhere/in-name-space" "$@"; }
  refused in_name_space in/k in/new
fi

# What counts is where the program lies, whatever it was called by.
ln -s "$daemon" "$T/elsewhere/link"
allowed "$T/elsewhere/link" in/k in/l
mv "$daemon" "$T/elsewhere/real"
ln -s "$T/elsewhere/real" "$daemon"
refused "$daemon" in/l in/new
rm "$daemon"

echo "a program that is renamed while it runs"
cp "$T/elsewhere/real" "$daemon"
mkfifo "$T/go" "$T/ready"
"$daemon" -e 'open(R, ">", shift); print R "x"; close(R); open(G, "<", shift); <G>; rename($ARGV[0], $ARGV[1]) or exit(1);' \
  "$T/ready" "$T/go" "$T/mnt/in/l" "$T/mnt/in/new" &
running=$!
read -r _ <"$T/ready" || true
mv "$daemon" "$T/bin/renamed"
echo go >"$T/go"
if wait $running; then fail "a program that is not at its path any more may move"; fi
[ -e "$T/lower/in/l" ] || fail "in/l was moved though it was refused"

echo "another path for the daemon"
configure - "$T/elsewhere/real"
allowed "$T/elsewhere/real" in/l in/last
refused "$T/bin/renamed" in/last in/new
tarn umount "$T/mnt"
