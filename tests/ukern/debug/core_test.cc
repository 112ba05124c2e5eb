// SPDX-License-Identifier: GPL-2.0
// What the hosting program sees: tasks, signals, user memory, the kernel log, reports.
#include <linux/capability.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/string.h>
#include <asm/uaccess.h>

#include "tests/harness/case.h"
#include "ukern/sched/task.h"
#include "ukern/sync/reflog.h"
#include "ukern/door/uk_core.h"

namespace {

class TaskAway {
 public:
  TaskAway() : task_(current) { ukern_set_current(NULL); }
  ~TaskAway() { ukern_set_current(task_); }

 private:
  struct task_struct *task_;
};

struct uk_task *new_task(int pid, unsigned uid, const unsigned *groups, unsigned ngroups) {
  uk_cred cred = {};
  cred.pid = pid;
  cred.uid = uid;
  cred.gid = uid + 1;
  cred.groups = groups;
  cred.ngroups = ngroups;
  return uk_task_new(&cred);
}

int take_signal(void *arg, int signal) {
  *(int *)arg = signal;
  return signal == 58 ? 0 : -EPERM;
}

void bug() {
  BUG();
}
void bug_on() {
  BUG_ON(current->pid == 1000);
}
void warn() {
  WARN_ON(1);
}

void leave_with_kernel_limit() {
  set_fs(KERNEL_DS);
  uk_task_leave();
}

}  // namespace

CASE(core, task_is_who_its_credentials_say) {
  const unsigned groups[] = {300, 20, 100};
  struct uk_task *task = new_task(4711, 50, groups, 3);
  REQUIRE_TRUE(task != NULL);
  {
    TaskAway away;
    uk_task_enter(task);
    EXPECT_EQ(current->pid, 4711);
    EXPECT_EQ(current->tgid, 4711);
    EXPECT_EQ(current->uid, 50u);
    EXPECT_EQ(current->fsuid, 50u);
    EXPECT_EQ(current->fsgid, 51u);
    EXPECT_TRUE(in_group_p(51));
    for (unsigned group : groups) EXPECT_TRUE(in_group_p(group));
    EXPECT_FALSE(in_group_p(50));
    EXPECT_FALSE(capable(CAP_NET_ADMIN));
    EXPECT_TRUE(segment_eq(get_fs(), USER_DS));
    uk_task_leave();
  }
  uk_task_put(task);
  EXPECT_EQ(kill_proc(4711, 0, 1), -ESRCH);
}

CASE(core, credentials_change) {
  struct uk_task *task = new_task(1, 50, NULL, 0);
  REQUIRE_TRUE(task != NULL);
  uk_cred cred = {};
  cred.pid = 2;
  cred.uid = 60;
  cred.cap_effective = 1u << CAP_NET_ADMIN;
  cred.exe = "/usr/sbin/some_program_with_a_name";
  EXPECT_EQ(uk_task_set_cred(task, &cred), 0);
  EXPECT_EQ(kill_proc(1, 0, 1), -ESRCH);
  EXPECT_EQ(kill_proc(2, 0, 1), 0);
  auto *inside = (struct task_struct *)task;
  EXPECT_EQ(inside->uid, 60u);
  EXPECT_STREQ(inside->comm, "some_program_wi");
  EXPECT_TRUE(cap_raised(inside->cap_effective, CAP_NET_ADMIN) != 0);
  uk_task_put(task);
}

CASE(core, signal_goes_to_the_handler) {
  int got = 0;
  struct uk_task *task = new_task(4711, 50, NULL, 0);
  REQUIRE_TRUE(task != NULL);
  uk_task_set_signal_handler(task, take_signal, &got);
  EXPECT_EQ(kill_proc(4711, 58, -111), 0);
  EXPECT_EQ(got, 58);
  EXPECT_EQ(kill_proc(4711, 10, 1), -EPERM);
  EXPECT_FALSE(signal_pending((struct task_struct *)task));
  uk_task_put(task);
}

CASE(core, signal_without_a_handler_is_recorded) {
  struct uk_task *task = new_task(4711, 50, NULL, 0);
  REQUIRE_TRUE(task != NULL);
  EXPECT_EQ(uk_task_signals(task), 0ull);
  EXPECT_EQ(kill_proc(4711, 58, 1), 0);
  EXPECT_EQ(uk_task_signals(task), 1ull << 57);
  EXPECT_TRUE(signal_pending((struct task_struct *)task));
  uk_task_put(task);
}

CASE(core, hidden_task_is_found_by_no_process_id) {
  struct uk_task *task = new_task(4711, 50, NULL, 0);
  REQUIRE_TRUE(task != NULL);
  uk_task_hide(task);
  EXPECT_EQ(kill_proc(4711, 0, 1), -ESRCH);
  uk_cred second = {};
  second.pid = 4712;
  EXPECT_EQ(uk_task_set_cred(task, &second), 0);
  EXPECT_EQ(kill_proc(4712, 0, 1), -ESRCH);
  EXPECT_EQ(((struct task_struct *)task)->pid, 4712);
  uk_task_put(task);
}

CASE(core, program_is_asked_for_when_it_matters) {
  static const char *program;
  program = "/first";
  uk_cred cred = {};
  cred.pid = 4711;
  cred.find_exe = [](int pid, char *buf, unsigned long size) {
    if (pid != 4711 || !program || strlen(program) > size) return 0l;
    memcpy(buf, program, strlen(program));
    return (long)strlen(program);
  };
  uk_task *uk = uk_task_new(&cred);
  REQUIRE_TRUE(uk);
  auto *task = (struct task_struct *)uk;
  EXPECT_EQ(task->exe, (char *)NULL);
  if (struct mm_struct *mm = get_task_mm(task)) mmput(mm);
  REQUIRE_TRUE(task->exe);
  EXPECT_EQ(strcmp(task->exe, "/first"), 0);
  program = "/second";
  if (struct mm_struct *mm = get_task_mm(task)) mmput(mm);
  REQUIRE_TRUE(task->exe);
  EXPECT_EQ(strcmp(task->exe, "/second"), 0);
  program = NULL;
  EXPECT_EQ(get_task_mm(task), (struct mm_struct *)NULL);
  uk_task_put(uk);
}

CASE(core, of_two_tasks_with_one_pid_the_handler_gets_the_signal) {
  int got = 0;
  struct uk_task *with = new_task(4711, 50, NULL, 0);
  struct uk_task *without = new_task(4711, 50, NULL, 0);
  REQUIRE_TRUE(with != NULL && without != NULL);
  uk_task_set_signal_handler(with, take_signal, &got);
  EXPECT_EQ(kill_proc(4711, 58, 1), 0);
  EXPECT_EQ(got, 58);
  EXPECT_EQ(uk_task_signals(without), 0ull);
  uk_task_put(with);
  uk_task_put(without);
}

CASE(core, signal_needs_the_right) {
  struct uk_task *mine = new_task(10, 50, NULL, 0);
  struct uk_task *other = new_task(11, 51, NULL, 0);
  REQUIRE_TRUE(mine != NULL && other != NULL);
  {
    TaskAway away;
    uk_task_enter(mine);
    EXPECT_EQ(kill_proc(11, SIGTERM, 0), -EPERM);
    EXPECT_EQ(kill_proc(10, SIGTERM, 0), 0);
    EXPECT_EQ(kill_proc(11, SIGTERM, 1), 0);
    EXPECT_EQ(kill_proc(11, 65, 0), -EINVAL);
    /* By a task and not by its id: then nobody asks for the right. */
    EXPECT_EQ(send_sig(SIGUSR1, find_task_by_pid(11), 0), 0);
    EXPECT_EQ(send_sig(65, find_task_by_pid(11), 0), -EINVAL);
    uk_task_leave();
  }
  uk_task_put(mine);
  uk_task_put(other);
}

CASE(core, user_memory_is_what_was_declared) {
  static char memory[64] = "0123456789";
  char buf[16];
  EXPECT_EQ(uk_user_add(memory, 4), 0);
  EXPECT_EQ(uk_user_add(memory + 4, 2), 0);
  EXPECT_TRUE(access_ok(VERIFY_READ, memory, 6));
  EXPECT_FALSE(access_ok(VERIFY_READ, memory, 7));
  EXPECT_EQ(copy_from_user(buf, memory, 10), 4ul);
  EXPECT_EQ(memcmp(buf, "012345\0\0\0\0", 10), 0);
  EXPECT_EQ(copy_to_user(memory + 3, "abcdef", 6), 3ul);
  EXPECT_STREQ(memory, "012abc6789");
  uk_user_del(memory);
  EXPECT_FALSE(access_ok(VERIFY_READ, memory, 1));
  EXPECT_TRUE(access_ok(VERIFY_WRITE, memory + 5, 1));
  uk_user_del(memory + 4);
  EXPECT_FALSE(access_ok(VERIFY_READ, memory + 4, 1));
}

CASE(core, many_user_ranges) {
  static char memory[100];
  for (int i = 0; i < 100; i++) EXPECT_EQ(uk_user_add(memory + i, 1), 0);
  EXPECT_TRUE(access_ok(VERIFY_READ, memory, 100));
  uk_user_del(memory + 50);
  EXPECT_FALSE(access_ok(VERIFY_READ, memory, 100));
  EXPECT_TRUE(access_ok(VERIFY_READ, memory + 51, 49));
  for (int i = 0; i < 100; i++) uk_user_del(memory + i);
  EXPECT_FALSE(access_ok(VERIFY_READ, memory + 51, 1));
}

CASE(core, log_lines_have_numbers_and_levels) {
  struct uk_klog_line line;
  char text[32];
  unsigned long long from = 0;
  while (uk_klog_read(from, 0, &line, text, sizeof(text))) from = line.number + 1;
  printk("<3>first\nsecond");
  printk(" half\n<6>third\n");
  EXPECT_EQ(uk_klog_read(from, 0, &line, text, sizeof(text)), 1);
  EXPECT_STREQ(text, "first");
  EXPECT_EQ(line.level, 3u);
  EXPECT_EQ(line.number, from);
  EXPECT_EQ(uk_klog_read(from + 1, 0, &line, text, 8), 1);
  EXPECT_STREQ(text, "second ");
  EXPECT_EQ(line.len, 11u);
  EXPECT_EQ(line.level, 4u);
  EXPECT_EQ(uk_klog_read(from + 2, 0, &line, text, sizeof(text)), 1);
  EXPECT_STREQ(text, "third");
  EXPECT_EQ(line.level, 6u);
  EXPECT_EQ(uk_klog_read(from + 3, 10, &line, text, sizeof(text)), 0);
}

CASE(printk, names_end_no_line) {
  struct uk_klog_line line;
  char text[64];
  unsigned long long from = 0;
  while (uk_klog_read(from, 0, &line, text, sizeof(text))) from = line.number + 1;
  printk("%s:%d\n", "a\n<0>b\x1b\x7f", 1);
  EXPECT_EQ(uk_klog_read(from, 0, &line, text, sizeof(text)), 1);
  EXPECT_STREQ(text, "a\\012<0>b\\033\\177:1");
  EXPECT_EQ(line.level, 4u);
  // However long: what follows is a line of its own.
  char name[1100];
  memset(name, 'n', sizeof(name) - 1);
  name[sizeof(name) - 1] = 0;
  printk("%s\n", name);
  printk("next\n");
  EXPECT_EQ(uk_klog_read(from + 1, 0, &line, text, sizeof(text)), 1);
  EXPECT_GT(line.len, 1000u);
  EXPECT_EQ(uk_klog_read(from + 2, 0, &line, text, sizeof(text)), 1);
  EXPECT_STREQ(text, "next");
}

CASE(core, log_forgets_its_oldest_lines) {
  struct uk_klog_line line;
  char text[32];
  for (int i = 0; i < 10000; i++) printk("line %d\n", i);
  EXPECT_EQ(uk_klog_read(0, 0, &line, text, sizeof(text)), 1);
  EXPECT_GT(line.number, 0ull);
  unsigned long long from = line.number, next = from;
  while (uk_klog_read(next, 0, &line, text, sizeof(text))) {
    EXPECT_EQ(line.number, next);
    next++;
  }
  EXPECT_STREQ(text, "line 9999");
  EXPECT_GT(next - from, 8000ull);
}

CASE(core, bugs_are_reported) {
  EXPECT_REPORT(bug, "core_test.cc");
  EXPECT_REPORT(bug_on, "current->pid == 1000");
  EXPECT_REPORT(warn, "WARNING at");
  EXPECT_REPORT(leave_with_kernel_limit, "kernel's address limit");
}

CASE(core, second_boot_is_refused) {
  uk_boot_options options = {};
  options.root_type = "memfs";
  EXPECT_EQ(uk_boot(&options), -EBUSY);
}

CASE(core, unknown_module) {
  EXPECT_EQ(uk_module_load("no_such_module"), -ENOENT);
  EXPECT_EQ(uk_module_unload("no_such_module"), -ENOENT);
}

#if UKERN_DEBUG
namespace {

void report_a_log() {
  struct reflog *log = NULL;
  for (int i = 0; i < 20; i++) reflog_note(&log, 1, i + 1);
  reflog_note(&log, -1, 19);
  bug_report *report = report_begin("a count");
  report_reflog(report, log);
  report_end(report);
}

}  // namespace

CASE(core, reference_log_shows_the_last_changes) {
  EXPECT_REPORT(report_a_log, "5 earlier changes");
  EXPECT_REPORT(report_a_log, "reference dropped, 19 then");
}
#endif
