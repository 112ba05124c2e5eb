/* SPDX-License-Identifier: GPL-2.0 */
/* An ext2 that this machine exports to itself by NFS version 3, with the kernel's own server. */
#ifndef TESTS_GUEST_NFS_H
#define TESTS_GUEST_NFS_H

/* Both: 0, or -1 with errno and a line that says at what. */
int nfs_mount(const char *at);
int nfs_unmount(const char *at);

#endif
