#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# The presubmit checks. Each prints one line when it is content.
set -euo pipefail
cd "$(dirname "$0")/.."

sources() { git ls-files -co --exclude-standard -- '*.cc' '*.h' '*.c'; }

check_format() {
  sources | xargs clang-format --dry-run -Werror
  echo "format: ok"
}

check_licence() {
  local bad
  bad=$(git ls-files -co --exclude-standard -- '*.cc' '*.h' '*.c' '*.sh' '*.py' '*.cmake' 'CMakeLists.txt' |
    xargs grep -L 'SPDX-License-Identifier: GPL-2.0' || true)
  [ -z "$bad" ] || { echo "no SPDX line: $bad" >&2; return 1; }
  echo "licence lines: ok"
}

check_words() {
  local bad
  bad=$(git ls-files -co --exclude-standard -z -- ':!tools/check.sh' ':!LICENSE' |
    xargs -0 grep -nIwE 'TODO|FIXME|XXX|HACK' || true)
  [ -z "$bad" ] || { echo "unfinished: $bad" >&2; return 1; }
  echo "words: ok"
}

# Those that are sourced have no line that names a shell, but an ending.
check_shell() {
  local scripts
  mapfile -t scripts < <({
    git ls-files -co --exclude-standard -- '*.sh'
    git ls-files -co --exclude-standard -z | xargs -0 grep -IlE '^#!.*\b(ba|da)?sh\b'
  } | sort -u)
  printf '%s\n' "${scripts[@]}" | xargs -P "$(nproc)" -n 8 shellcheck
  echo "shell scripts: ${#scripts[@]} without a finding"
}

# Code that the checks of a debug kernel change is a file of its own, or asks kDebugBuild.
check_variants() {
  local bad
  bad=$(grep -rnE '^\s*#\s*(el)?if.*\bUKERN_DEBUG\b' ukern --include='*.cc' || true)
  [ -z "$bad" ] || { echo "debug code among other code: $bad" >&2; return 1; }
  echo "variants: ok"
}

# Header guards are no dependence; nor is __cplusplus, for module code is C++ wherever it is built and what tests it
# is what a C program includes.
check_conditionals() {
  local bad
  bad=$(grep -rnE '^\s*#\s*if(def|ndef)?\b' module --include='*.cc' --include='*.h' |
    grep -vE '#ifndef [A-Z0-9_]+_H$|__cplusplus' || true)
  [ -z "$bad" ] || { echo "module code depends on where it is built: $bad" >&2; return 1; }
  echo "module conditionals: ok"
}

# clang checks who holds which lock, but knows nothing of the standard library's.
check_locks() {
  local bad
  bad=$(git ls-files -co --exclude-standard -- '*.cc' '*.h' ':!base/mutex.h' |
    xargs grep -nE 'std::([a-z]+_)*(mutex|lock_guard|unique_lock|scoped_lock|shared_lock|condition_variable)' || true)
  [ -z "$bad" ] || { echo "a lock whose holders clang cannot check; base/mutex.h has one: $bad" >&2; return 1; }
  echo "locks: ok"
}

# What the module loader of a real kernel would ignore or cannot load must not be in the module's objects.
check_module_objects() {
  local object bad objects=0
  cmake --build build/release --target tarn_module >/dev/null
  while read -r object; do
    bad=$(objdump -h "$object" | grep -oE '\.(ctors|init_array|eh_frame|gcc_except_table)\S*' || true)
    bad+=$(nm "$object" | grep -oE '_ZGV\S*|__cxa_\S*|__gxx_\S*|_Unwind\S*' || true)
    [ -z "$bad" ] || { echo "$object: $bad" >&2; return 1; }
    objects=$((objects + 1))
  done < <(find build/release/module -name '*.o')
  [ "$objects" -gt 0 ] || { echo "module objects: none found" >&2; return 1; }
  echo "module objects: ok"
}

check_kmod() {
  if [ -z "${KDIR:-}" ]; then
    echo "kmod: skipped, no KDIR given"
    return
  fi
  make -s -C kmod KDIR="$KDIR" check
  echo "kmod: ok"
}

check_format
check_licence
check_words
check_shell
check_conditionals
check_variants
check_locks
tools/check_includes.py
tools/check_test_table.py
tools/check_declarations.py
tools/check_guards.py
cmake --preset release >/dev/null
tools/check_compile.py build/release --headers
tools/check_compile.py build/release --aarch64
check_module_objects
cmake --preset debug -B build/check-clang -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
tools/check_compile.py build/check-clang --tidy
check_kmod
