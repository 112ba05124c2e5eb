# SPDX-License-Identifier: GPL-2.0
guest_image ext2 96M
guest_program mapped "$here/mapped.c" "$here/guest.c" "$here/image.c"
step /mapped
