/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The portable cases of tests/ukern as a kernel module. Their number is in the parameter `count`.
 * Writing a number to `select` makes that case the one that `name` names, "suite.name"; writing
 * anything to `run` runs it in the writing process: the write fails with EIO when the case has
 * failed. What failed is in the kernel log. One process at a time.
 */
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/moduleparam.h>

#include "tests/guest/cases.h"

static int count;
static char *name = "";

static int select(const char *value, struct kernel_param *param) {
  (void)param;
  name = (char *)case_select(simple_strtoul(value, NULL, 10));
  return name ? 0 : -ENOENT;
}

static int run(const char *value, struct kernel_param *param) {
  (void)value;
  (void)param;
  return case_run() ? -EIO : 0;
}

module_param(count, int, 0444);
module_param(name, charp, 0444);
module_param_call(select, select, NULL, NULL, 0200);
module_param_call(run, run, NULL, NULL, 0200);

static int __init cases_init(void) {
  count = case_count();
  return 0;
}

static void __exit cases_exit(void) {}

module_init(cases_init);
module_exit(cases_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("cases of the kernel interface that tarn uses");
