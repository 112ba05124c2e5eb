/* SPDX-License-Identifier: GPL-2.0 */
/* Calling conventions: on x86-64 every one of them is the compiler's own. */
#ifndef _LINUX_LINKAGE_H
#define _LINUX_LINKAGE_H

#include <linux/compiler.h>

#define CPP_ASMLINKAGE
#define asmlinkage CPP_ASMLINKAGE
#define fastcall
#define FASTCALL(x) x
#define NORET_TYPE
#define ATTRIB_NORET __attribute__((noreturn))

#endif
