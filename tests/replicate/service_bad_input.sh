#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What the service cannot start with is refused with one clear line, and nothing is changed: configurations, state
# directories, targets that are not apart from their source. What it can mend is told and mended: a cut log.
. "$(dirname "$0")/../lib.sh"
. "$(dirname "$0")/service.bash"
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root has other users' directories" >&2; exit 77; }
chmod 755 "$T"
chmod 700 "$T/replica"
mkdir -p "$T/lower/sub" "$T/bound"
echo contents >"$T/lower/file"
echo theirs >"$T/replica/theirs"

# Names, types, modes, owners, times and contents of all that must not change.
picture() {
  (
    cd "$T"
    # The lock says which process has had it last.
    find . ! -name LOCK '(' -path './lower*' -o -path './replica*' -o -path './service*' ')' | sort >"$T/names"
    while read -r name; do
      case $name in
        ./service*) stat -c '%n %F %a %u:%g %s' "$name" ;; # a document may be replaced by the same one
        *) stat -c '%n %F %a %u:%g %s %y %N' "$name" ;;
      esac
      [ ! -f "$name" ] || sha256sum "$name"
    done <"$T/names"
  )
}
# refused STATUS TEXT [COMMAND...]: mirrord run, or the command, says one line with the text and leaves all as it is.
refused() {
  local expected=$1 text=$2 status=0
  shift 2
  [ $# -gt 0 ] || set -- timeout 20 mirrord run --config "$CONFIG"
  picture >"$T/before"
  "$@" >"$T/out" 2>"$T/run.err" || status=$?
  [ "$status" -eq "$expected" ] || fail "$text: ended with $status and not with $expected: $(cat "$T/out" "$T/run.err")"
  [ "$(wc -l <"$T/run.err")" -eq 1 ] || fail "$text: not one line: $(cat "$T/run.err")"
  grep -qF -- "$text" "$T/run.err" || fail "expected '$text': $(cat "$T/run.err")"
  picture | diff "$T/before" - >&2 || fail "$text: something was changed"
}
# Of the configuration: `check` says so as well.
refused_configuration() {
  refused 2 "$1"
  refused 1 "$1" mirrord check --config "$CONFIG"
}

# Configurations.
refused_configuration "mirrord.toml"
echo 'state = "' >"$CONFIG"
refused_configuration "mirrord.toml:1"
printf 'state = "%s"\n' "$T/service" >"$CONFIG"
refused_configuration "source"
configure replica
good=$(cat "$CONFIG")
mirrord check --config "$CONFIG" >/dev/null || fail "the good configuration is refused"
changed() { printf '%s\n' "$good" | sed "$1" >"$CONFIG"; }
changed 's/^name = "data"/&\nexcludes = ["sub"]/'
refused_configuration "mirrord.toml:6: [[source]] has no key excludes"
changed 's/^name = "data"/name = 5/'
refused_configuration "mirrord.toml:5"
changed "s|^directory = \"$T/lower\"|directory = \"lower\"|"
refused_configuration "mirrord.toml:6"
changed "s|^directory = \"$T/lower\"|directory = \"$T/nowhere\"|"
refused_configuration "$T/nowhere"
changed "s|^directory = \"$T/lower\"|directory = \"$T/lower/file\"|"
refused_configuration "$T/lower/file"
echo 'log-limit = "1 KiB"' | configure replica
refused_configuration "log-limit"
echo 'exclude = ["../elsewhere"]' | configure replica
refused_configuration "../elsewhere"
configure replica replica
refused 2 "replica"

# A target inside the source, and the other way round: as it is written, by a link, by a mount.
configure lower/sub
sed -i 's|^name = "lower/sub"|name = "inside"|' "$CONFIG"
refused_configuration "$T/lower"
ln -s lower/sub "$T/link"
configure link
refused_configuration "$T/lower"
configure replica
mkdir "$T/replica/inner"
sed -i "s|\"$T/lower\"|\"$T/replica/inner\"|" "$CONFIG"
refused_configuration "$T/replica"
rmdir "$T/replica/inner"
configure bound
refused 2 "$T/bound" unshare --mount --propagation slave timeout 20 bash -c "mount --bind $T/lower/sub $T/bound && exec mirrord run --config $CONFIG"
refused 1 "$T/bound" unshare --mount --propagation slave timeout 20 bash -c "mount --bind $T/lower/sub $T/bound && exec mirrord check --config $CONFIG"
refused 2 "$T/bound" unshare --mount --propagation slave timeout 20 bash -c "mount --bind $T $T/bound && exec mirrord run --config $CONFIG"
tarn mount "$T/lower" "$T/mnt"
configure replica
sed -i "s|^directory = \"$T/lower\"|directory = \"$T/mnt\"|" "$CONFIG"
refused_configuration "$T/lower"
configure mnt
refused_configuration "$T/lower"

# State directories. Each is made anew by the service itself.
configure replica
start_service
equal replica
kill -STOP "$SERVICE_PID" # it saves its position from time to time
refused 1 "another mirrord (process $SERVICE_PID)"
kill -CONT "$SERVICE_PID"
verb status >/dev/null || fail "the first service suffers from the second"
echo more >"$T/mnt/more"
equal replica
stop_service

chown -R 12345 "$T/service"
refused 1 "belongs to user 12345"
chown -R 0 "$T/service"
cp "$BUILD/mirrord/mirrord" "$T/mirrord-of-others"
as_other() { setpriv --reuid 12345 --regid 12345 --clear-groups env TARN_RUN_DIR="$T/run" timeout 20 "$T/mirrord-of-others" "$@"; }
refused 1 "$T/service" as_other run --config "$CONFIG"
chmod 755 "$T/service"
refused 1 "open to others"
chmod 700 "$T/service"

cp -a "$T/service/VERSION" "$T/version"
echo "tarn mirrord state 999" >"$T/service/VERSION"
refused 1 "version 999"
echo "nonsense" >"$T/service/VERSION"
refused 1 "$T/service"
rm "$T/service/VERSION"
refused 1 "$T/service"
cp -a "$T/version" "$T/service/VERSION"

# Documents of the state.
for document in source.json received.json target-replica; do
  cp -a "$T/service/data/$document" "$T/document"
  truncate -s 20 "$T/service/data/$document"
  refused 1 "$document"
  cp -a "$T/document" "$T/service/data/$document"
done

# Another directory in the source's place: all would be removed in the target.
tarn umount "$T/mnt"
mv "$T/lower" "$T/lower.away"
mkdir "$T/lower"
refused 1 "another directory than before"
[ -e "$T/replica/more" ] || fail "the target was emptied"
# On purpose, somebody says: what the target has of the other one is compared.
echo other >"$T/lower/file"
rm "$T/service/data/source.json"
tarn mount "$T/lower" "$T/mnt"
start_service
equal replica
grep -q 'GAP: it is not known whether' "$T/service.err" || fail "another source, and no gap: $(cat "$T/service.err")"
stop_service
tarn umount "$T/mnt"
rm -r "$T/lower" "$T/service/data/source.json"
refused_configuration "$T/lower"
mv "$T/lower.away" "$T/lower"
tarn mount "$T/lower" "$T/mnt"
start_service
equal replica
for i in $(seq 50); do echo "$i" >"$T/mnt/n$i"; done
equal replica
kill_service

# A log without a readable beginning is refused; one that was cut is a gap, which heals.
cp -a "$T/service" "$T/service.whole"
last=$(find "$T/service/data/log" -type f -size +0 | sort | tail -n 1)
size=$(stat -c %s "$last")
[ "$(find "$T/service/data/log" -type f -size +0 | wc -l)" -ge 1 ] || fail "there is no log"
dd if=/dev/zero of="$last" bs=1 count=56 conv=notrunc status=none
refused 1 "$T/service/data/log"
for bytes in $((size - 1)) $((size / 2)) 60; do
  rm -rf "$T/service"
  cp -a "$T/service.whole" "$T/service"
  truncate -s "$bytes" "$last"
  : >"$T/service.err"
  rm "$T/replica/n7" # as if the lost entry had not been applied
  touch "$T/lower/n7"
  start_service
  equal replica
  grep -q 'GAP: the log' "$T/service.err" || fail "cut to $bytes of $size bytes, and nothing is told"
  verb verify || fail "differences after the log was cut"
  kill_service
done
