# SPDX-License-Identifier: GPL-2.0
# Loading and unloading, and what another module imports.
guest_image ext2 96M
guest_program load_unload "$here/load_unload.c" "$here/guest.c" "$here/image.c"
step /load_unload
