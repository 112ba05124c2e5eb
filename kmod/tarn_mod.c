/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The part of tarn.ko that must be C: the kernel's module macros lay out sections and symbols that
 * only C initialisers can make. It has no behaviour of its own.
 */
#include <linux/init.h>
#include <linux/module.h>

extern int tarn_init(void);
extern void tarn_exit(void);

/* module_init and module_exit make aliases, which must name a function of this file. */
static int __init tarn_load(void) {
  return tarn_init();
}
static void __exit tarn_unload(void) {
  tarn_exit();
}

module_init(tarn_load);
module_exit(tarn_unload);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("stackable file system that captures changes");

/* An export records a name and an address, so that any declaration of the name serves. */
#include "lib/ox_export.h"
#define EXPORT(name)      \
  extern void name(void); \
  EXPORT_SYMBOL_GPL(name);
OX_EXPORTS(EXPORT)
