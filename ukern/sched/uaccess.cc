// SPDX-License-Identifier: GPL-2.0
// A task's access to user memory. The ranges form a stack: most calls push one, use it and pop it,
// so the first few are in the task itself.
#include <linux/slab.h>
#include <linux/string.h>
#include <asm/uaccess.h>

#include "ukern/sched/user_memory.h"
#include "ukern/sync/debug.h"

namespace {

constexpr unsigned kMoreAtOnce = 32;

// Bytes that the thread has copied in from user memory; counted in debug builds only.
__thread unsigned long copied_in __attribute__((tls_model("initial-exec")));

struct ukern_user_range *range_at(struct task_struct *task, unsigned index) {
  if (index < UKERN_USER_RANGES) return &task->user[index];
  return &task->user_more[index - UKERN_USER_RANGES];
}

bool kernel_limit(const struct task_struct *task) {
  return segment_eq(task->addr_limit, KERNEL_DS);
}

// Number of bytes from `addr` on, up to `size`, that the current task can access.
unsigned long reach(unsigned long addr, unsigned long size) {
  struct task_struct *task = current;
  if (!task) return 0;
  if (kernel_limit(task)) return size;
  unsigned long have = 0;
  for (unsigned i = task->user_ranges; have < size && i-- > 0;) {
    const struct ukern_user_range *range = range_at(task, i);
    if (addr + have - range->start >= range->len) continue;
    have += range->len - (addr + have - range->start);
    i = task->user_ranges;  // the next byte may lie in any range
  }
  return have < size ? have : size;
}

bool make_room(struct task_struct *task) {
  const unsigned room = task->user_room + kMoreAtOnce;
  auto *more = static_cast<struct ukern_user_range *>(
      kmalloc(room * sizeof(struct ukern_user_range), GFP_KERNEL));
  if (!more) return false;
  if (task->user_room) memcpy(more, task->user_more, task->user_room * sizeof(*more));
  kfree(task->user_more);
  task->user_more = more;
  task->user_room = room;
  return true;
}

}  // namespace

extern "C" {

int user_memory_add(const void *start, unsigned long len) {
  struct task_struct *task = current;
  if (task->user_ranges == UKERN_USER_RANGES + task->user_room && !make_room(task)) return -ENOMEM;
  *range_at(task, task->user_ranges++) = {.start = reinterpret_cast<unsigned long>(start),
                                          .len = len};
  return 0;
}

void user_memory_del(const void *start) {
  struct task_struct *task = current;
  unsigned i = task->user_ranges;
  while (i-- > 0) {
    if (range_at(task, i)->start != reinterpret_cast<unsigned long>(start)) continue;
    task->user_ranges--;
    for (; i < task->user_ranges; i++) *range_at(task, i) = *range_at(task, i + 1);
    return;
  }
}

unsigned long user_memory_copied(void) {
  return copied_in;
}

int ukern_access_ok(unsigned long addr, unsigned long size) {
  return reach(addr, size) == size;
}

unsigned long copy_to_user(void __user *to, const void *from, unsigned len) {
  might_sleep();
  const unsigned long done = reach(reinterpret_cast<unsigned long>(to), len);
  memcpy(const_cast<void *>(to), from, done);
  return len - done;
}

unsigned long copy_from_user(void *to, const void __user *from, unsigned len) {
  might_sleep();
  const unsigned long done = reach(reinterpret_cast<unsigned long>(from), len);
  memcpy(to, const_cast<const void *>(from), done);
  if constexpr (kDebugBuild) copied_in += done;
  if (done < len) memset(static_cast<char *>(to) + done, 0, len - done);
  return len - done;
}

unsigned long clear_user(void __user *mem, unsigned long len) {
  might_sleep();
  const unsigned long done = reach(reinterpret_cast<unsigned long>(mem), len);
  memset(const_cast<void *>(mem), 0, done);
  return len - done;
}

long strncpy_from_user(char *dst, const char __user *src, long count) {
  might_sleep();
  for (long i = 0; i < count; i++) {
    if (!reach(reinterpret_cast<unsigned long>(src + i), 1)) return -EFAULT;
    dst[i] = src[i];
    if (!dst[i]) return i;
  }
  return count;
}

long strnlen_user(const char __user *str, long n) {
  might_sleep();
  for (long i = 0; i <= n; i++) {
    if (!reach(reinterpret_cast<unsigned long>(str + i), 1)) return 0;
    if (!str[i]) return i + 1;
  }
  return n + 1;
}
}
