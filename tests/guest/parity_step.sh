# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# The cases of tests/fs on plain directories and on mounts; parity_compare.sh looks at what they said. Each kind has a
# kernel of its own: the lock proof ends with its first complaint, and one is known (tests/README.md).
mkdir "$root/cases" "$root/lost"
make -s -C "$top/tests/fs/cases" CC=musl-gcc STATIC=-static OUT="$root/cases" >"$work/parity.log" 2>&1 ||
  { tail -n 20 "$work/parity.log" >&2; die "the cases of tests/fs cannot be built for the guest"; }
guest_program parity "$here/parity.c" "$here/nfs.c" "$here/guest.c" "$here/image.c"
guest_image ext2 96M
guest_image ext3 96M
step_alone /parity ext2
step_alone /parity ext3
step_alone /parity nfs
step_alone /parity tmpfs
