# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
guest_image ext2 96M
guest_program writers "$here/writers.c" "$here/record.c" "$here/channel.c" "$here/guest.c" "$here/image.c"
step /writers
