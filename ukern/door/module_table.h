/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The modules linked into an image. The image defines the table, once:
 *
 *   const struct builtin_module builtin_modules[] = {{"tarn", tarn_init, tarn_exit}, {0, 0, 0}};
 *
 * An image without one has no modules. Code of a module is compiled with MODULE defined; all
 * modules of one image share one use count (__this_module).
 */
#ifndef UKERN_DOOR_MODULE_TABLE_H
#define UKERN_DOOR_MODULE_TABLE_H

#ifdef __cplusplus
extern "C" {
#endif

struct builtin_module {
  const char *name; /* null ends the table */
  int (*init)(void);
  void (*exit)(void);
};

extern const struct builtin_module builtin_modules[] __attribute__((weak));

#ifdef __cplusplus
}
#endif
#endif
