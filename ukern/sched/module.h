/* SPDX-License-Identifier: GPL-2.0 */
/* Loading and unloading the modules linked into this image (ukern/door/module_table.h). May sleep.
 */
#ifndef UKERN_SCHED_MODULE_H
#define UKERN_SCHED_MODULE_H

#ifdef __cplusplus
extern "C" {
#endif

/* The result of init; -ENOENT: unknown name, -EEXIST: already loaded. */
int load_builtin_module(const char *name);
/* 0; -ENOENT: not loaded, -EWOULDBLOCK: in use. */
int unload_builtin_module(const char *name);
/* Unloads every loaded module; one that is still in use is reported and abandoned. */
void ukern_modules_exit(void);

#ifdef __cplusplus
}
#endif
#endif
