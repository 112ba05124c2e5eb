# SPDX-License-Identifier: GPL-2.0
# shellcheck shell=bash disable=SC2154 # sourced by tests/guest/run, which sets these variables
# The module's socket options.
guest_program options "$here/options.c" "$here/channel.c" "$here/guest.c" "$here/image.c"
step /options
