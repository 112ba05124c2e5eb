#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# What stands around the parity cases: each has its row in the table, each listed difference is of a case that there
# is, and the comparison fails on what is not listed as well as on what is listed and not there.
. "$(dirname "$0")/../lib.sh"

here="$HERE/fs"
for file in "$here"/cases/*.c; do
  name=$(basename "$file" .c)
  grep -q "^| .*\`$name\`" "$here/README.md" || fail "$name has no row in tests/fs/README.md"
done
while read -r name; do
  [ -e "$here/cases/$name.c" ] || fail "parity/differences.txt lists a difference of $name, which is no case"
done < <(sed -n 's/^case //p' "$here/parity/differences.txt")
while read -r name; do
  [ -e "$here/cases/$name.c" ] || fail "tests/fs/README.md has a row for $name, which is no case"
done < <(sed -n 's/^| [^|]* |\(.*\)|$/\1/p' "$here/README.md" | grep -o '`[^`]*`' | tr -d '`')

compare() {
  python3 "$here/parity/compare.py" --case some --kind tmpfs --runs-in "$1" --differences "$T/list" "$T/plain" "$T/mount" \
    >"$T/compared" 2>&1
}
printf '%s\n' 'open -> 0' 'read -> 3' 'close -> 0' >"$T/plain"
cp "$T/plain" "$T/mount"
: >"$T/list"
compare process || fail "equal transcripts are not equal: $(cat "$T/compared")"
printf '%s\n' 'open -> 0' 'read -> 4' 'close -> 0' >"$T/mount"
if compare process; then fail "a difference was not noticed"; fi
grep -q 'plain read -> 3' "$T/compared" || fail "the difference is not shown: $(cat "$T/compared")"
printf '%s\n' 'case some' 'runs-in process' 'plain read -> 3' 'mount read -> 4' 'because it is so' >"$T/list"
compare process || fail "a listed difference is an error: $(cat "$T/compared")"
if compare kernel; then fail "a difference listed for a process is one for a kernel"; fi
cp "$T/plain" "$T/mount"
if compare process; then fail "a listed difference that is not there was not noticed"; fi

# What a lower file system has only in some configurations.
printf '%s\n' 'open -> 0' 'read -> 4' 'close -> 0' >"$T/mount"
printf '%s\n' 'case some' 'when plain open -> 0' 'plain read -> 3' 'mount read -> 4' 'because it is so' >"$T/list"
compare process || fail "a difference where the plain directory says so is an error: $(cat "$T/compared")"
printf '%s\n' 'case some' 'when plain open -> 1' 'plain read -> 3' 'mount read -> 4' 'because it is so' >"$T/list"
if compare process; then fail "a difference passed where the plain directory says otherwise"; fi
cp "$T/plain" "$T/mount"
compare process || fail "a difference was missed where the plain directory says otherwise: $(cat "$T/compared")"
printf '%s\n' 'case some' 'when open -> 1' 'plain read -> 3' 'mount read -> 4' 'because it is so' >"$T/list"
if compare process || ! grep -q "'when' needs" "$T/compared"; then fail "'when' without 'plain' was taken"; fi

# Several differences of one reason.
printf '%s\n' 'case some' 'times 2' 'plain read -> 3' 'mount read -> 4' 'also' 'mount exit status 1' 'because it is so' >"$T/list"
printf '%s\n' 'read -> 3' 'a' 'read -> 3' 'b' 'read -> 3' 'c' >"$T/plain"
printf '%s\n' 'read -> 4' 'a' 'read -> 4' 'b' 'read -> 3' 'c' 'exit status 1' >"$T/mount"
compare process || fail "differences with one reason are an error: $(cat "$T/compared")"
printf '%s\n' 'read -> 4' 'a' 'read -> 4' 'b' 'read -> 4' 'c' 'exit status 1' >"$T/mount"
if compare process; then fail "a difference at three places passed for one at two"; fi
printf '%s\n' 'read -> 4' 'a' 'read -> 3' 'b' 'read -> 3' 'c' 'exit status 1' >"$T/mount"
if compare process; then fail "a difference at one place passed for one at two"; fi
printf '%s\n' 'read -> 4' 'a' 'read -> 4' 'b' 'read -> 3' 'c' >"$T/mount"
if compare process; then fail "the second of two differences was not missed"; fi
for wrong in 'times 1' 'times' 'also at once' 'sometimes' 'also'; do
  printf '%s\n' 'case some' 'plain read -> 3' 'mount read -> 4' 'because it is so' "$wrong" >"$T/list"
  if compare process || ! grep -q "$T/list:" "$T/compared"; then fail "'$wrong' was taken"; fi
done

printf '%s\n' 'open -> 0' 'read -> 3' 'close -> 0' >"$T/plain"
head -n 2 "$T/plain" >"$T/mount"
if compare process; then fail "a transcript that ends early was not noticed"; fi
: >"$T/plain"
cp "$T/plain" "$T/mount"
if compare process; then fail "transcripts that say nothing were taken for equal"; fi
printf '%s\n' 'case some' 'plain read -> 3' >"$T/list"
if compare process; then fail "a difference without a reason was taken"; fi
