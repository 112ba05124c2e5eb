# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# The portable cases of tests/ukern, inside the kernel.
guest_program kernel_cases "$here/kernel_cases.c" "$here/guest.c" "$here/image.c"
guest_image ext2 96M
step /kernel_cases
