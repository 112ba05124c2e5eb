#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# refusals.sh BUILD: trees that the module cannot be built against are refused with one line that says what is wrong and
# what to do. The trees here are made of the few files that are looked at, so that no kernel's source is needed.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-test.XXXXXX")
trap 'rm -rf "$T"' EXIT
tree="$T/linux"
failed=0

# expect WHAT TEXT ARGUMENT...: building with these arguments fails and its error has the text.
expect() {
  local what=$1 text=$2 status=0 said
  shift 2
  said=$(make -s -C "$top/kmod" out="$T/out" "$@" 2>&1) || status=$?
  if [ $status -eq 0 ] || [[ $said != *"$text"* ]]; then
    echo "FAILED: $what: status $status, expected \"$text\", got: $said" >&2
    failed=1
  fi
}

expect "no tree is named" "KDIR is not set. Name a built Linux 2.6.18 x86-64 tree"
expect "there is no such folder" "is not a kernel tree: it has no include/linux/fs.h" KDIR="$tree"
mkdir -p "$tree/include/linux" "$tree/include/asm-x86_64" "$tree/include/asm-i386"
touch "$tree/include/linux/fs.h"
expect "nothing is configured" "is not configured: it has no include/linux/autoconf.h. Run \"make oldconfig\"" KDIR="$tree"
touch "$tree/include/linux/autoconf.h"
expect "nothing is prepared" "is not prepared: it has no include/linux/version.h" KDIR="$tree"
echo '#define LINUX_VERSION_CODE 132627' >"$tree/include/linux/version.h"
expect "2.6.19" "is another version: LINUX_VERSION_CODE is 132627, 2.6.18 is 132626" KDIR="$tree"
echo '#define LINUX_VERSION_CODE 132626' >"$tree/include/linux/version.h"
ln -s asm-i386 "$tree/include/asm"
expect "a 32-bit machine" "is configured for another machine: include/asm does not lead to asm-x86_64" KDIR="$tree"
ln -sfn asm-x86_64 "$tree/include/asm"
expect "half prepared" "is not prepared: it has no include/asm/asm-offsets.h" KDIR="$tree"
touch "$tree/include/asm/asm-offsets.h"
expect "no netfilter" "is configured without CONFIG_NETFILTER" KDIR="$tree"
echo '#define CONFIG_NETFILTER 1' >"$tree/include/linux/autoconf.h"
expect "no modules" "is configured without CONFIG_MODULES" KDIR="$tree"
printf '#define CONFIG_%s 1\n' NETFILTER MODULES MODULE_UNLOAD SMP >"$tree/include/linux/autoconf.h"
expect "never built" "is not built: it has no vmlinux. Run \"make\" there" KDIR="$tree"
printf 'x\0%s\0y' "2.6.18 SMP mod_unload gcc-4.1" >"$tree/vmlinux"
expect "no list of exports" "has no Module.symvers" KDIR="$tree"
printf '0x00000000\tprintk\tvmlinux\tEXPORT_SYMBOL\n' >"$tree/Module.symvers"

# ---- what the link asks of the tree ----

echo '#define UTS_RELEASE "2.6.18"' >"$tree/include/linux/utsrelease.h"
echo 'void printk(void); void vfs_none(void); void f(void) { printk(); vfs_none(); }' >"$T/needy.c"
gcc -c -o "$T/needy.o" "$T/needy.c"
echo 'void printk(void); void f(void) { printk(); }' >"$T/modest.c"
gcc -c -o "$T/modest.o" "$T/modest.c"

# refuse WHAT TEXT OBJECT: modinfo.py refuses the object with that text.
refuse() {
  local status=0 said
  said=$("$top/kmod/modinfo.py" --kdir "$tree" "$3" 2>&1) || status=$?
  if [ $status -eq 0 ] || [[ $said != *"$2"* ]]; then
    echo "FAILED: $1: status $status, expected \"$2\", got: $said" >&2
    failed=1
  fi
}

refuse "a symbol that is not exported" "needs what $tree does not export: vfs_none" "$T/needy.o"
said=$("$top/kmod/modinfo.py" --kdir "$tree" "$T/modest.o")
[[ $said == *'MODULE_INFO(vermagic, "2.6.18 SMP mod_unload gcc-4.1");'* ]] ||
  { echo "FAILED: the version string is not the kernel's: $said" >&2; failed=1; }
[[ $said != *symbol_versions* ]] || { echo "FAILED: checksums without CONFIG_MODVERSIONS" >&2; failed=1; }
echo '#define CONFIG_MODVERSIONS 1' >>"$tree/include/linux/autoconf.h"
printf '0x1234abcd\tstruct_module\tvmlinux\tEXPORT_SYMBOL\n0x0000beef\tprintk\tvmlinux\tEXPORT_SYMBOL\n' >"$tree/Module.symvers"
said=$("$top/kmod/modinfo.py" --kdir "$tree" "$T/modest.o")
[[ $said == *'{ 0x1234abcd, "struct_module" }'* && $said == *'{ 0x0000beef, "printk" }'* ]] ||
  { echo "FAILED: the checksums are not the tree's: $said" >&2; failed=1; }
# What EXPORT_SYMBOL_GPL makes there: the checksum of an export is the address of a weak symbol.
cat >"$T/exporter.c" <<'CODE'
void printk(void);
void lent(void) { printk(); }
extern void *__crc_lent __attribute__((weak));
const unsigned long __kcrctab_lent = (unsigned long)&__crc_lent;
const unsigned long __ksymtab_lent = (unsigned long)&lent;
CODE
gcc -c -mcmodel=kernel -fno-pic -o "$T/exporter.o" "$T/exporter.c"
said=$("$top/kmod/modinfo.py" --kdir "$tree" "$T/exporter.o" 2>&1) ||
  { echo "FAILED: a module with exports is refused: $said" >&2; failed=1; }
[[ $said == *'{ 0x0000beef, "printk" }'* && $said != *__crc_* ]] ||
  { echo "FAILED: the checksums of a module with exports: $said" >&2; failed=1; }
echo 'void lent(void); void f(void) { lent(); }' >"$T/importer.c"
gcc -c -o "$T/importer.o" "$T/importer.c"
said=$("$top/kmod/modinfo.py" --kdir "$tree" --with "$T/exporter.o" "$T/importer.o")
[[ $said == *'{ 0x00000000, "lent" }'* && $said == *'"exporter"'* ]] ||
  { echo "FAILED: what is imported from another module has no checksum: $said" >&2; failed=1; }
sed 's/__crc_lent/__crc_other/' "$T/exporter.c" >"$T/astray.c"
gcc -c -mcmodel=kernel -fno-pic -o "$T/astray.o" "$T/astray.c"
refuse "a checksum of what is not exported" "needs what $tree does not export: __crc_other" "$T/astray.o"
printf '#define CONFIG_%s 1\n' NETFILTER MODULES MODULE_UNLOAD PREEMPT >"$tree/include/linux/autoconf.h"
refuse "configured anew" "is configured for \"preempt mod_unload\" but its vmlinux was built for \"SMP mod_unload\"" \
  "$T/modest.o"
printf 'x\0%s\0y' "2.6.18-other SMP gcc-4.1" >"$tree/vmlinux"
refuse "changed behind the build" "has no version string of 2.6.18: was the tree changed after it was built?" "$T/modest.o"

# ---- relocations ----

gcc -c -O0 -fno-pic -mcmodel=kernel -o "$T/calls.o" "$T/modest.c"
readelf -rW "$T/calls.o" | grep -q R_X86_64_PLT32 || { echo "FAILED: this assembler writes no PLT32" >&2; failed=1; }
"$top/kmod/relocations.py" "$T/calls.o"
readelf -rW "$T/calls.o" | grep -A3 'rela.text' | grep -q 'R_X86_64_PC32.*printk - 4' &&
  ! readelf -rW "$T/calls.o" | grep -q R_X86_64_PLT32 ||
  { echo "FAILED: calls are not relative to the instruction: $(readelf -rW "$T/calls.o")" >&2; failed=1; }
echo 'extern int x; int f(void) { return x; }' >"$T/got.c"
gcc -c -O0 -fPIC -o "$T/got.o" "$T/got.c"
status=0
said=$("$top/kmod/relocations.py" "$T/got.o" 2>&1) || status=$?
[ $status -ne 0 ] && [[ $said == *"is not known to the 2.6.18 loader"* ]] ||
  { echo "FAILED: a relocation through a table was let through: $said" >&2; failed=1; }

exit $failed
