# SPDX-License-Identifier: GPL-2.0
guest_image ext2 96M
guest_program pressure "$here/pressure.c" "$here/guest.c" "$here/image.c"
step /pressure
