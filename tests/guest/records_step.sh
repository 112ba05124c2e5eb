# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# A daemon that looks at every record.
guest_image ext2 96M
guest_program records "$here/records.c" "$here/record.c" "$here/channel.c" "$here/guest.c" "$here/image.c"
step /records
