/* SPDX-License-Identifier: GPL-2.0 */
#ifndef UKERN_LINUX_FCNTL_H
#define UKERN_LINUX_FCNTL_H

#include <asm/fcntl.h>

#define force_o_largefile() 1 /* open files are large files where a long has 64 bits */

#endif
