# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# Loading and unloading, and what another module imports. Each load takes room of the lock proof's for good.
guest_image ext2 96M
guest_program load_unload "$here/load_unload.c" "$here/proof.c" "$here/guest.c" "$here/image.c"
step_alone /load_unload bare
step_alone /load_unload mounted
