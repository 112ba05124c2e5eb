/* SPDX-License-Identifier: GPL-2.0 */
/* A file system that lies in a file, on the first loop device. One at a time. */
#ifndef TESTS_GUEST_IMAGE_H
#define TESTS_GUEST_IMAGE_H

/* Mounts a fresh copy of the image; its size is the text in IMAGE.size. 0, or -1 with errno. */
int mount_image(const char *image, const char *type, const char *options, const char *at);
/* A descriptor of the mounted copy, which outlives the mount and then holds what was left. */
int open_image_copy(void);
/* 0, or -1 with errno when it is busy; then it is out of sight but still there. */
int unmount_image(const char *at);

#endif
