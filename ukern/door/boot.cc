// SPDX-License-Identifier: GPL-2.0
// Boot and shutdown, module loading, the kernel log and the panic handler.
#include "ukern/door/uk_core.h"

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/swap.h>

#include "ukern/door/node.h"
#include "ukern/mm/mm_internal.h"
#include "ukern/mm/slab.h"
#include "ukern/sched/boot.h"
#include "ukern/sched/module.h"
#include "ukern/sched/printk.h"
#include "ukern/sched/task.h"
#include "ukern/sync/lockcheck.h"
#include "ukern/sync/report.h"
#include "ukern/vfs/file_table.h"

namespace {

constexpr unsigned long kRamPages = 65536;

struct Area {
  int (*init)(void);
  void (*exit)(void);
};

const Area areas[] = {
    {ukern_slab_init, ukern_slab_exit},   {ukern_tasks_init, ukern_tasks_exit},
    {ukern_mm_init, ukern_mm_exit},       {ukern_vfs_init, ukern_vfs_exit},
    {ukern_nodes_init, ukern_nodes_exit}, {ukern_fs_init, ukern_fs_exit},
    {ukern_net_init, ukern_net_exit},
};
// Areas before this index own the tasks, which the kernel threads of the later areas need to the
// end.
constexpr unsigned kThreadless = 2;

volatile int running;

void report_threads() {
  if (const unsigned live = ukern_kthreads_wait())
    report_end(report_begin("%u kernel threads still run at shutdown", live));
}

// Stops the first `count` areas, last one first.
void stop_areas(unsigned count) {
  while (count-- > 0) {
    if (count + 1 == kThreadless) report_threads();
    areas[count].exit();
  }
}

int start_areas() {
  for (unsigned i = 0; i < ARRAY_SIZE(areas); i++) {
    const int error = areas[i].init();
    if (!error) continue;
    stop_areas(i);
    return error;
  }
  return 0;
}

}  // namespace

extern "C" {

int uk_boot(const struct uk_boot_options *options) {
  if (__atomic_exchange_n(&running, 1, __ATOMIC_ACQ_REL)) return -EBUSY;
  ukern_time_reset();
  ukern_printk_reset();
  ukern_lockcheck_reset();
  totalram_pages = options->ram_pages ? options->ram_pages : kRamPages;
  ukern_max_files = options->max_files;
  page_cache_limit = options->cache_pages ? options->cache_pages : totalram_pages;

  ukern_task_setup(&init_task, 0, "swapper");
  ukern_set_current(&init_task);
  int error = start_areas();
  if (!error) {
    error = ukern_mount_root(options->root_type, options->root_source);
    if (error) stop_areas(ARRAY_SIZE(areas));
  }
  ukern_lock_check_none("end of the boot");
  ukern_set_current(nullptr);
  if (error) __atomic_store_n(&running, 0, __ATOMIC_RELEASE);
  return error;
}

int uk_shutdown(void) {
  if (!__atomic_load_n(&running, __ATOMIC_ACQUIRE)) return -EINVAL;
  const unsigned long before = report_count();
  BUG_ON(current);
  ukern_lock_check_none("shutdown");
  ukern_set_current(&init_task);
  ukern_umount_root();
  ukern_modules_exit();
  stop_areas(ARRAY_SIZE(areas));
  ukern_lock_check_none("end of the shutdown");
  ukern_set_current(nullptr);
  __atomic_store_n(&running, 0, __ATOMIC_RELEASE);
  return static_cast<int>(report_count() - before);
}
int uk_module_load(const char *name) {
  return load_builtin_module(name);
}

int uk_module_unload(const char *name) {
  return unload_builtin_module(name);
}

void uk_set_panic_handler(uk_panic_handler handler) {
  set_panic_handler(handler);
}

int uk_klog_read(unsigned long long from, unsigned wait_ms, struct uk_klog_line *line, char *text,
                 unsigned long size) {
  struct klog_line found;
  if (!klog_read(from, wait_ms, &found, text, size)) return 0;
  *line = {.number = found.number, .us = found.us, .level = found.level, .len = found.len};
  return 1;
}
}
