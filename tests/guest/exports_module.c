/* SPDX-License-Identifier: GPL-2.0 */
/* A module that imports everything that tarn exports. It loads when all of it works. */
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/module.h>

extern int use_exports(void);

static int __init exports_init(void) {
  return use_exports() ? -EIO : 0;
}

static void __exit exports_exit(void) {}

module_init(exports_init);
module_exit(exports_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("uses every export of tarn");
