# SPDX-License-Identifier: GPL-2.0
# The module's socket options.
guest_program options "$here/options.c" "$here/channel.c" "$here/guest.c" "$here/image.c"
step /options
