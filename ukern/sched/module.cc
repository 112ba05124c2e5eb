// SPDX-License-Identifier: GPL-2.0
// Modules linked into the image: loading calls init; unloading calls exit if the module is not in
// use.
#include <linux/errno.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/string.h>

#include "ukern/door/module_table.h"
#include "ukern/sched/module.h"
#include "ukern/sched/task.h"
#include "ukern/sync/guard.h"
#include "ukern/sync/report.h"

namespace {

constexpr unsigned kModules = 64;

DEFINE_SPINLOCK(module_lock);  // protects __this_module
DEFINE_MUTEX(load_mutex);      // protects loaded; held while init and exit run
bool loaded[kModules];

const struct builtin_module *table() {
  static const struct builtin_module none[] = {{.name = nullptr, .init = nullptr, .exit = nullptr}};
  return builtin_modules ? builtin_modules : none;
}

// Index in the table, or -ENOENT.
int find(const char *name) {
  for (unsigned i = 0; i < kModules && table()[i].name; i++)
    if (!strcmp(table()[i].name, name)) return static_cast<int>(i);
  return -ENOENT;
}

void set_state(enum module_state state) {
  SpinGuard guard(module_lock);
  __this_module.state = state;
}

// False if the module is in use.
bool start_going() {
  SpinGuard guard(module_lock);
  const bool idle = __this_module.refcnt == 0;
  if (idle) __this_module.state = MODULE_STATE_GOING;
  return idle;
}

int load_locked(unsigned index) {
  if (loaded[index]) return -EEXIST;
  strlcpy(__this_module.name, table()[index].name, sizeof(__this_module.name));
  set_state(MODULE_STATE_COMING);
  const int result = table()[index].init();
  if (result < 0) {
    set_state(MODULE_STATE_GOING);
    return result;
  }
  set_state(MODULE_STATE_LIVE);
  loaded[index] = true;
  return result;
}

int unload_locked(unsigned index) {
  if (!loaded[index]) return -ENOENT;
  if (!start_going()) return -EWOULDBLOCK;
  table()[index].exit();
  loaded[index] = false;
  return 0;
}

}  // namespace

extern "C" {

struct module __this_module;

int try_module_get(struct module *module) {
  if (!module) return 1;
  SpinGuard guard(module_lock);
  const bool live = module_is_live(module);
  if (live) module->refcnt++;
  return live;
}

void __module_get(struct module *module) {
  if (!module) return;
  SpinGuard guard(module_lock);
  BUG_ON(module->refcnt == 0);
  module->refcnt++;
}

void module_put(struct module *module) {
  if (!module) return;
  SpinGuard guard(module_lock);
  BUG_ON(module->refcnt == 0);
  module->refcnt--;
}

int load_builtin_module(const char *name) {
  KernelTaskScope scope("insmod");
  const int index = find(name);
  if (index < 0) return index;
  MutexGuard guard(load_mutex);
  return load_locked(static_cast<unsigned>(index));
}

int unload_builtin_module(const char *name) {
  KernelTaskScope scope("rmmod");
  const int index = find(name);
  if (index < 0) return index;
  MutexGuard guard(load_mutex);
  return unload_locked(static_cast<unsigned>(index));
}

void ukern_modules_exit(void) {
  MutexGuard guard(load_mutex);
  for (unsigned i = 0; i < kModules && table()[i].name; i++) {
    if (unload_locked(i) == -EWOULDBLOCK)
      report_end(report_begin("module %s is still in use at shutdown, with %d references",
                              table()[i].name, __this_module.refcnt));
    loaded[i] = false;
  }
  __this_module.refcnt = 0;
}
}
