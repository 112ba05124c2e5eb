/* SPDX-License-Identifier: GPL-2.0 */
/* Start-up code stays in memory here, so the section marks have no meaning. */
#ifndef _LINUX_INIT_H
#define _LINUX_INIT_H

#include <linux/compiler.h>

#define __init
#define __initdata
#define __exit
#define __exitdata

typedef int (*initcall_t)(void);
typedef void (*exitcall_t)(void);

#endif
