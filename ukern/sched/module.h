/* SPDX-License-Identifier: GPL-2.0 */
#ifndef UKERN_SCHED_MODULE_H
#define UKERN_SCHED_MODULE_H

/* Unloads every loaded module; one that is still in use is reported and abandoned. */
extern "C" void ukern_modules_exit(void);

#endif
