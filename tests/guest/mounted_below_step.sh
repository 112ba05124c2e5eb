# SPDX-License-Identifier: GPL-2.0
guest_image ext2 96M
guest_program mounted_below "$here/mounted_below.c" "$here/guest.c" "$here/image.c"
step /mounted_below
