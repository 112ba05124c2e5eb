#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# Completion in bash and zsh offers exactly the verbs and options that --help lists, for each program and each verb of it;
# beyond the verbs it offers files, and the rules where a rule is asked for.
. "$(dirname "$0")/../lib.sh"
FOLDER=$HERE/../packaging/completion

# in_bash WORD...: what is offered for the last word, one line each.
in_bash() {
  bash --norc -c '
    . "$1"
    shift
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
    compopt() { echo FILES; }
    for name in tarn tarnd mirrord; do complete -p $name >/dev/null || echo "no completion of $name"; done
    _tarn "$1"
    printf "%s\n" "${COMPREPLY[@]}"' bash "$FOLDER/bash/tarn" "$@" | grep . || true
}

# zsh takes the words itself and picks those that begin like the word.
in_zsh() {
  zsh -f -c '
    fpath=($1 $fpath)
    shift
    compadd() { shift; print -rl -- "$@"; }
    _files() { print FILES; }
    autoload -Uz _tarn
    words=("$@") CURRENT=$#
    _tarn' zsh "$FOLDER/zsh" "$@" | grep . || true
}

# Walks through all verbs by the program's help, read in another way than the completion does, and prints the word that is
# completed behind "@" and what is to be offered.
expected() {
  python3 - "$@" <<'WALK'
import subprocess, sys
def walk(command):
    text = subprocess.run(command + ["--help"], capture_output=True, text=True, check=True).stdout
    found = {"Options:": [], "Subcommands:": []}
    section = None
    for line in text.splitlines():
        if not line.startswith(" "):
            section = found.get(line)
        elif section is not None and line[2] != " ":
            section.append(line.split()[0].split(",")[-1])
    options, verbs = found["Options:"], found["Subcommands:"]
    print("@", *command, "-")
    print(*sorted(options), sep="\n")
    if verbs:
        print("@", *command, "")
        print(*sorted(verbs), sep="\n")
    for verb in verbs:
        walk(command + [verb])
for program in sys.argv[1:]:
    walk([program])
WALK
}

expected tarn tarnd mirrord >"$T/expected"
grep -q '^@ tarn rule add -$' "$T/expected" && grep -q '^--include$' "$T/expected" || fail "the help is not understood"
for shell in bash zsh; do
  command -v $shell >/dev/null || fail "$shell is missing: tools/deps.sh installs it"
  grep '^@' "$T/expected" | while IFS= read -r line; do
    IFS=' ' read -ra words <<<"${line#@ }"
    [ "${line% }" = "$line" ] || words+=("")
    printf '%s\n' "$line"
    in_$shell "${words[@]}" | LC_ALL=C sort
  done >"$T/$shell"
  diff <(LC_ALL=C sort "$T/expected") <(LC_ALL=C sort "$T/$shell") >&2 || fail "$shell offers other words"
  [ "$(in_$shell tarn mount "")" = FILES ] || fail "$shell offers no files"
  [ "$(in_$shell mirrord --source "")" = FILES ] || fail "$shell offers no files to an option"
done
[ "$(in_bash tarn rule a)" = add ] || fail "bash offers what does not begin like the word"

tarn mount "$T/lower" "$T/mnt"
uuid=$(tarn rule add --include "$T/lower")
for shell in bash zsh; do
  [ "$(in_$shell tarn rule del "")" = "$uuid" ] || fail "$shell does not offer the rule: $(in_$shell tarn rule del "")"
done
tarn umount "$T/mnt"
