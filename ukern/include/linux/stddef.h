/* SPDX-License-Identifier: GPL-2.0 */
#ifndef _LINUX_STDDEF_H
#define _LINUX_STDDEF_H

#include <linux/compiler.h>

#undef NULL
#define NULL __null

#undef offsetof
#define offsetof(type, member) __builtin_offsetof(type, member)

#endif
