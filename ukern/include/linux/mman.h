/* SPDX-License-Identifier: GPL-2.0 */
/* Constants of mmap and msync on x86-64. */
#ifndef _LINUX_MMAN_H
#define _LINUX_MMAN_H

#define PROT_READ 0x1
#define PROT_WRITE 0x2
#define PROT_EXEC 0x4
#define PROT_NONE 0x0

#define MAP_SHARED 0x01
#define MAP_PRIVATE 0x02
#define MAP_TYPE 0x0f
#define MAP_FIXED 0x10
#define MAP_ANONYMOUS 0x20
#define MAP_DENYWRITE 0x0800
#define MAP_EXECUTABLE 0x1000

#define MS_ASYNC 1
#define MS_INVALIDATE 2
/* MS_SYNC is 4 here and a mount flag is 16: the two lists never meet in one file of the kernel. */
#define MS_SYNC 4

#endif
