// SPDX-License-Identifier: GPL-2.0
// Calls every function that tarn exports from another module and looks at what it does.
#include "module/kernel.h"

#include "ox_thread.h"
#include "ox_types.h"

namespace {

int failures;

#define CHECK(it)                                              \
  do {                                                         \
    if (!(it)) {                                               \
      failures++;                                              \
      printk(KERN_INFO "tarn_exports: %s is not true\n", #it); \
    }                                                          \
  } while (0)

void use_log() {
  CHECK(ox_debug_exit() == -EINVAL);
  CHECK(ox_debug_init("/tmp/ox_debug") == 0);
  CHECK(ox_debug_init("/nowhere/ox_debug") == 0);  // it is open
  CHECK(ox_log(OX_LOG_INFO, __FILE__, __LINE__, __func__, "%s %d\n", "line", 1) > 0);
  CHECK(ox_log(OX_LOG_TRACE + 1, __FILE__, __LINE__, __func__, "not written\n") == 0);
  CHECK(ox_debug_exit() == 0);
}

void use_memory() {
  auto *block = static_cast<char *>(ox_malloc(100, GFP_KERNEL | __GFP_ZERO));
  CHECK(block && block[0] == 0 && block[99] == 0);
  CHECK(ox_free(block) == 0);
}

void use_time() {
  const ox_s64_t seconds = 1000000000;
  struct rtc_time date;
  CHECK(gmtime_r(&seconds, &date) == &date);
  CHECK(date.tm_year == 101 && date.tm_mon == 8 && date.tm_mday == 9);
  CHECK(date.tm_hour == 1 && date.tm_min == 46 && date.tm_sec == 40);
  date.tm_year = 2001;
  date.tm_mon = 9;
  CHECK(ox_mktime(&date) == (seconds - 8 * 3600) * 1000000);
  const ox_time_t before = ox_current_time_us();
  CHECK(before > 0 && ox_current_time_us() >= before);
  CHECK(ox_current_time_ns() > 0);
}

ox_thread_t thread;
struct completion wanted;

// Hands its mark to whoever waits, then stays until it is killed.
int mark_and_stay(ox_thread_t *self) {
  *static_cast<int *>(self->t_private) = 42;
  complete(&wanted);
  while (!ox_thread_stopping(self)) schedule_timeout_uninterruptible(1);
  return 0;
}

void use_threads() {
  int mark = 0;

  init_completion(&wanted);
  CHECK(ox_complete_timedwait(&wanted, 10) == -ETIMEDOUT);
  CHECK(ox_thread_init(&thread, "tarn_exports", 0, 1, mark_and_stay, &mark) == 0);
  const int error = ox_thread_create(&thread);
  CHECK(error == 0);
  if (error) return;
  CHECK(ox_complete_timedwait(&wanted, 0xFFFFFFFFu) == 0);
  CHECK(mark == 42);
  CHECK(ox_thread_kill(&thread) == 0);
  CHECK(ox_thread_destroy(&thread) == 0);
}

int take_page(ox_thread_t *self) {
  *static_cast<struct page **>(self->t_private) = ox_alloc_page(GFP_KERNEL);
  complete(&wanted);
  return 0;
}

// tarn sets no limit of pages, so that whoever takes one waits until as many were given back.
void use_pages() {
  struct page *page = nullptr;
  struct page *other = alloc_pages(GFP_KERNEL, 0);

  CHECK(other);
  init_completion(&wanted);
  CHECK(ox_thread_init(&thread, "tarn_exports", 0, 2, take_page, &page) == 0);
  const int error = ox_thread_create(&thread);
  CHECK(error == 0);
  if (error || !other) return;
  CHECK(ox_complete_timedwait(&wanted, 100) == -ETIMEDOUT);
  ox_free_page(other);
  while (ox_complete_timedwait(&wanted, 10)) wake_up_process(thread.t_task);
  CHECK(ox_thread_kill(&thread) == 0);
  CHECK(page && page_count(page) == 1);
  if (page) __free_pages(page, 0);
}

}  // namespace

extern "C" int use_exports(void) {
  failures = 0;
  use_log();
  use_memory();
  use_time();
  use_threads();
  use_pages();
  return failures;
}
