/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The modules linked into an image. The image defines the table, once:
 *
 *   const struct uk_module uk_modules[] = {{"tarn", tarn_init, tarn_exit}, {0, 0, 0}};
 *
 * An image without one has no modules. Code of a module is compiled with MODULE defined; all
 * modules of one image share one use count (__this_module).
 */
#ifndef UKERN_SCHED_MODULE_TABLE_H
#define UKERN_SCHED_MODULE_TABLE_H

#ifdef __cplusplus
extern "C" {
#endif

struct uk_module {
  const char *name; /* null ends the table */
  int (*init)(void);
  void (*exit)(void);
};

extern const struct uk_module uk_modules[] __attribute__((weak));

#ifdef __cplusplus
}
#endif
#endif
