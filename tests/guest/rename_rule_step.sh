# SPDX-License-Identifier: GPL-2.0
guest_image ext2 96M
guest_program rename_rule "$here/rename_rule.c" "$here/channel.c" "$here/guest.c" "$here/image.c"
step /rename_rule
