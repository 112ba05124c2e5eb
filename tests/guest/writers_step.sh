# SPDX-License-Identifier: GPL-2.0
guest_image ext2 96M
guest_program writers "$here/writers.c" "$here/record.c" "$here/channel.c" "$here/guest.c" "$here/image.c"
step /writers
