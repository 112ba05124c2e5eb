#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# git: the same history is made on a plain directory and on the mount. The names of its commits, which cover every
# byte of every file, must be the same, and git finds nothing wrong with the repository, its replica included.
. "$(dirname "$0")/common.bash"
require git

export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null GIT_TERMINAL_PROMPT=0
export GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@example.org GIT_COMMITTER_NAME=c GIT_COMMITTER_EMAIL=c@example.org
export GIT_AUTHOR_DATE='2006-09-20T03:42:06Z' GIT_COMMITTER_DATE='2006-09-20T03:42:06Z'

make_origin() {
  take_sources
  git init -q -b main "$T/origin"
  cp -r "$T/sources/module" "$T/sources/ukern" "$T/origin"
  git -C "$T/origin" add -A
  git -C "$T/origin" commit -q -m origin
}

# change N: one branch with changes of every kind, merged into the main one.
change() {
  local n=$1 f
  git checkout -q -b "topic-$n"
  for f in $(git ls-files '*.h' | awk -v n="$n" 'NR % 7 == n % 7'); do echo "/* $n */" >>"$f"; done
  git mv "$(git ls-files '*.cc' | head -n 1)" "moved-$n.cc"
  git rm -q "$(git ls-files '*.cc' | tail -n 1)"
  ln -s "moved-$n.cc" "link-$n"
  install -m 755 /dev/null "empty-$n"
  git add -A
  git commit -q -m "change $n"
  git checkout -q main
  echo "$n" >>on-main
  git add on-main
  git commit -q -m "main $n"
  git merge -q -m "merge $n" "topic-$n" >/dev/null
  git tag -a -m "tag $n" "tag-$n"
}

# history DIRECTORY: clones twice (with and without the pack protocol), makes the changes, rewrites, packs, looks.
history() {
  git clone -q "file://$T/origin" "$1/far"
  git clone -q "$T/origin" "$1/near"
  cd "$1/near"
  local n
  for n in $(seq $((2 * SCALE))); do change "$n"; done
  echo stashed >>on-main
  git stash -q
  git stash pop -q
  git commit -q -a -m stashed
  git checkout -q -b rebased "topic-1"
  git rebase -q -X theirs --onto main "topic-1~1" 2>/dev/null
  git worktree add -q ../tree "tag-1"
  git gc -q --prune=now
  git repack -q -a -d -f
  git fsck --full --strict >/dev/null
  git push -q ../far rebased
  git -C ../far gc -q --aggressive
  git -C ../far fsck --full --strict >/dev/null
  git status --porcelain
  git for-each-ref --format='%(objectname) %(refname)'
  git -C ../far for-each-ref --format='%(objectname) %(refname)'
  git -C ../tree rev-parse HEAD
  cd "$T"
}

make_origin
start_soak
mkdir "$T/plain"
history "$T/plain" >"$T/history.plain"
history "$T/mnt" >"$T/history.mount"
cmp "$T/history.plain" "$T/history.mount" || fail "the mount's history differs: $(diff "$T"/history.*)"
[ "$(wc -l <"$T/history.mount")" -gt 10 ] || fail "hardly any history was made"
catch_up
for repository in near far; do
  git -C "$T/replica/$repository" fsck --full --strict >/dev/null || fail "git finds the replica of $repository damaged"
done
end_soak
