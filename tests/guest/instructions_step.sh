# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# What calls cost, in instructions. instructions_compare.sh makes the table.
guest_image ext2 96M
guest_program instructions "$here/instructions.c" "$here/channel.c" "$here/guest.c" "$here/image.c"
step_counted /instructions
