/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Modules. Code compiled with MODULE defined belongs to the module linked into this image;
 * THIS_MODULE counts its users, and uk_module_unload refuses while the count is above zero.
 * Everything else is built in.
 */
#ifndef _LINUX_MODULE_H
#define _LINUX_MODULE_H

#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <asm/atomic.h>

#define MODULE_NAME_LEN (64 - sizeof(unsigned long))

enum module_state { MODULE_STATE_LIVE, MODULE_STATE_COMING, MODULE_STATE_GOING };

struct module {
  enum module_state state;
  char name[MODULE_NAME_LEN];
  int refcnt; /* under the module lock */
};

extern "C" {
extern struct module __this_module;

/* 1 with a reference taken; 0 if the module is being unloaded. Always 1 for a null module (built
 * in). */
int try_module_get(struct module *module);
/* Takes a further reference; the caller has one, so the module is not being unloaded. */
void __module_get(struct module *module);
void module_put(struct module *module);
}

#ifdef MODULE
#define THIS_MODULE (&__this_module)
#else
#define THIS_MODULE ((struct module *)0)
#endif

static inline int module_is_live(struct module *module) {
  return module->state != MODULE_STATE_GOING;
}

/* Symbols are not looked up by name here, but must exist, with C linkage. */
#define EXPORT_SYMBOL(sym) extern "C" typeof(sym) sym
#define EXPORT_SYMBOL_GPL(sym) extern "C" typeof(sym) sym

#endif
