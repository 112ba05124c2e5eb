#!/bin/bash
# SPDX-License-Identifier: GPL-2.0
# complaints.py finds what a 2.6.18 kernel complains of, and nothing in what it says at each start.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
T=$(mktemp -d "${TMPDIR:-/tmp}/tarn-test.XXXXXX")
trap 'rm -rf "$T"' EXIT
failed=0

while IFS= read -r line; do
  printf 'Linux version 2.6.18\n%s\nFreeing unused kernel memory\n' "$line" >"$T/log"
  if "$here/complaints.py" "$T/log" >"$T/said" || ! grep -qF "$line" "$T/said"; then
    echo "FAILED: not taken for a complaint: $line" >&2
    failed=1
  fi
done <<'LINES'
Oops: 0000 [1] SMP
kernel BUG at fs/inode.c:1234!
BUG: soft lockup detected on CPU#0!
BUG: spinlock bad magic on CPU#0, rmmod/12
BUG: sleeping function called from invalid context at mm/slab.c:2900
BUG: warning at kernel/lockdep.c:1814/trace_hardirqs_on()
BUG: scheduling while atomic: swapper/0x00000001/0
[ INFO: possible recursive locking detected ]
[ INFO: possible circular locking dependency detected ]
BUG: MAX_LOCKDEP_CHAINS too low!
BUG: MAX_LOCK_DEPTH too low!
turning off the locking correctness validator.
[ BUG: lock held at task exit time! ]
[ BUG: bad unlock balance detected! ]
Slab corruption: start=ffff81000f1a2000, len=512
slab error in kmem_cache_destroy(): cache `tarn_inode_cache': Can't free all objects
slab error in cache_free_debugcheck(): double free, or memory outside object was overwritten
VFS: Busy inodes after unmount of tmpfs. Self-destruct in 5 seconds.  Have a nice day...
Unable to handle kernel NULL pointer dereference at 0000000000000008 RIP:
general protection fault: 0000 [1] SMP
Kernel panic - not syncing: Attempted to kill init!
Bad page state in process 'mapped'
Out of Memory: Kill process 123 (pressure) score 12 and children.
pressure: page allocation failure. order:0, mode:0x20
tarn: version magic '2.6.18 SMP gcc-4.1' should be '2.6.18 SMP gcc-12.2'
tarn: Unknown symbol vfs_none
tarn: disagrees about version of symbol struct_module
tarn_exports: no version for "ox_log" found: kernel tainted.
EXT3-fs warning (device loop0): ext3_rmdir: empty directory has nlink!=2 (1)
EXT2-fs error (device loop0): ext2_check_page: bad entry in directory #31
LINES

cat >"$T/log" <<'LINES'
Linux version 2.6.18 (root@build) (gcc version 12.2.0) #1 SMP
MCE: warning: using only 10 banks
Lock dependency validator: Copyright (c) 2006 Red Hat, Inc., Ingo Molnar
... MAX_LOCKDEP_SUBCLASSES:    8
... MAX_LOCK_DEPTH:          30
... MAX_LOCKDEP_KEYS:        2048
... MAX_LOCKDEP_ENTRIES:     8192
... MAX_LOCKDEP_CHAINS:      8192
lockdep: not fixing up alternatives.
warning: many lost ticks.
ACPI: Core revision 20060707
VFS: Mounted root (ext2 filesystem).
EXT3-fs: mounted filesystem with ordered data mode.
Register tarn filesystem success
tarn_rename:block /lower/rep/f
tarn_thd_trans: stop
acpi_power_off called
LINES
"$here/complaints.py" "$T/log" >"$T/said" || { echo "FAILED: taken for complaints: $(cat "$T/said")" >&2; failed=1; }
exit $failed
