# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# Names that change on the mount and below at once, for RACE_SECONDS on each file system. Its images are small, for they
# come out over a serial line; racer_compare.sh looks at them.
guest_image ext2 8M race_ext2 -b 1024 -N 512
guest_image ext3 8M race_ext3 -b 1024 -N 512 -J size=1
guest_program racer "$here/racer.c" "$here/race.c" "$here/guest.c" "$here/image.c"
step_alone /racer ext2 "$RACE_SECONDS"
step_alone /racer ext3 "$RACE_SECONDS"
