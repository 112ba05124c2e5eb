// SPDX-License-Identifier: GPL-2.0
#include "ukern/sync/report.h"

#include <linux/sched.h>
#include <linux/string.h>

#include "ukern/host/host.h"
#include "ukern/sync/stack.h"

struct bug_report {
  char text[65536];
  size_t length;
};

namespace {

bug_report the_report;
volatile unsigned int report_word;
__thread int inside __attribute__((tls_model("initial-exec")));
unsigned long ended;
void (*panic_handler)(const char *report);

void add_text(bug_report *report, const char *text, size_t length) {
  const size_t room = sizeof(report->text) - 1 - report->length;
  if (length > room) length = room;
  memcpy(report->text + report->length, text, length);
  report->length += length;
  report->text[report->length] = 0;
}

void add(bug_report *report, const char *text) {
  add_text(report, text, strlen(text));
}

void add_format(bug_report *report, const char *fmt, va_list args) {
  char line[1024];
  add_text(report, line, static_cast<size_t>(vscnprintf(line, sizeof(line), fmt, args)));
}

void add_frame(void *arg, const char *text) {
  auto *report = static_cast<bug_report *>(arg);
  add(report, "      ");
  add(report, text);
  add(report, "\n");
}

void print_and_abort(const char *text) {
  host_write_stderr(text, strlen(text));
  host_abort();
}

}  // namespace

extern "C" {

struct bug_report *report_vbegin(const char *fmt, va_list args) {
  if (inside) {
    static const char kText[] = "a report failed while another was being made\n";
    print_and_abort(kText);
  }
  ukern_word_lock(&report_word);
  inside = 1;
  the_report.length = 0;
  add(&the_report, "kernel: ");
  add_format(&the_report, fmt, args);
  add(&the_report, "\n");
  if (const struct task_struct *task = current)
    report_line(&the_report, "in task %d (%s)", task->pid, task->comm);
  return &the_report;
}

struct bug_report *report_begin(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  struct bug_report *report = report_vbegin(fmt, args);
  va_end(args);
  return report;
}

void report_line(struct bug_report *report, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  add(report, "  ");
  add_format(report, fmt, args);
  add(report, "\n");
  va_end(args);
}

void report_stack(struct bug_report *report, const char *title, const struct call_stack *stack) {
  report_line(report, "%s:", title);
  if (!stack->depth) add(report, "      (nowhere known)\n");
  host_symbolize(stack->pc, stack->depth, add_frame, report);
}

void report_here(struct bug_report *report) {
  struct call_stack stack;
  call_stack_save(&stack, 0);
  report_stack(report, "at", &stack);
}

void report_end(struct bug_report *report) {
  ended++;
  const auto handler = __atomic_load_n(&panic_handler, __ATOMIC_ACQUIRE);
  if (!handler) print_and_abort(report->text);
  handler(report->text);
  inside = 0;
  ukern_word_unlock(&report_word);
}

unsigned long report_count(void) {
  ukern_word_lock(&report_word);
  const unsigned long count = ended;
  ukern_word_unlock(&report_word);
  return count;
}

void set_panic_handler(void (*handler)(const char *report)) {
  __atomic_store_n(&panic_handler, handler, __ATOMIC_RELEASE);
}

// Adds the call stack of the caller's caller.
static noinline void end_with_stack(struct bug_report *report) {
  struct call_stack stack;
  call_stack_save(&stack, 1);
  report_stack(report, "at", &stack);
  report_end(report);
}

void ukern_bug(const char *file, int line, const char *what) {
  struct bug_report *report = report_begin("BUG at %s:%d: %s", file, line, what);
  end_with_stack(report);
  host_abort();
}

int ukern_warn(const char *file, int line, const char *what) {
  printk(KERN_WARNING "warning at %s:%d: %s\n", file, line, what);
  struct bug_report *report = report_begin("WARNING at %s:%d: %s", file, line, what);
  end_with_stack(report);
  return 1;
}

void panic(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  struct bug_report *report = report_vbegin(fmt, args);
  va_end(args);
  end_with_stack(report);
  host_abort();
}
}
