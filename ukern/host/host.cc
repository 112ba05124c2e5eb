// SPDX-License-Identifier: GPL-2.0
// Threads, waiting, memory, clocks.
#include "ukern/host/host.h"

#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>

namespace {

struct ThreadStart {
  void (*fn)(void *);
  void *arg;
  char name[16];
};

void *thread_main(void *memory) {
  const ThreadStart start = *static_cast<ThreadStart *>(memory);
  free(memory);
  pthread_setname_np(pthread_self(), start.name);
  start.fn(start.arg);
  return nullptr;
}

long futex(const volatile unsigned int *word, int op, unsigned int value, const timespec *timeout) {
  return syscall(SYS_futex, word, op | FUTEX_PRIVATE_FLAG, value, timeout, nullptr,
                 FUTEX_BITSET_MATCH_ANY);
}

long long clock_ns(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

}  // namespace

int host_thread_start(void (*fn)(void *arg), void *arg, const char *name) {
  auto *start = static_cast<ThreadStart *>(malloc(sizeof(ThreadStart)));
  if (!start) return -ENOMEM;
  start->fn = fn;
  start->arg = arg;
  snprintf(start->name, sizeof(start->name), "%s", name);

  // Blocks all signals: only the program's own threads take them.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, thread_main, start);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error) {
    free(start);
    return -error;
  }
  pthread_detach(thread);
  return 0;
}

void host_stack_bounds(unsigned long *low, unsigned long *high) {
  pthread_attr_t attr;
  void *address = nullptr;
  size_t size = 0;
  *low = *high = 0;
  if (pthread_getattr_np(pthread_self(), &attr)) return;
  pthread_attr_getstack(&attr, &address, &size);
  pthread_attr_destroy(&attr);
  *low = reinterpret_cast<unsigned long>(address);
  *high = *low + size;
}

void host_yield(void) {
  sched_yield();
}

int host_wait(const volatile unsigned int *word, unsigned int expected, long long timeout_ns) {
  const int saved = errno;
  timespec timeout;
  timespec *limit = nullptr;
  if (timeout_ns >= 0) {
    timeout.tv_sec = timeout_ns / 1000000000;
    timeout.tv_nsec = timeout_ns % 1000000000;
    limit = &timeout;
  }
  const long result = futex(word, FUTEX_WAIT, expected, limit);
  const int error = result < 0 ? errno : 0;
  errno = saved;
  return error == ETIMEDOUT ? -ETIMEDOUT : 0;
}

void host_wake(const volatile unsigned int *word, int count) {
  const int saved = errno;
  futex(word, FUTEX_WAKE, static_cast<unsigned int>(count), nullptr);
  errno = saved;
}

void *host_alloc(unsigned long size, unsigned long align) {
  if (align <= 16) return malloc(size);
  void *memory = nullptr;
  return posix_memalign(&memory, align, size) ? nullptr : memory;
}

void host_free(void *memory) {
  free(memory);
}

long long host_wall_ns(void) {
  return clock_ns(CLOCK_REALTIME);
}

long long host_clock_ns(void) {
  return clock_ns(CLOCK_MONOTONIC);
}

void host_write_stderr(const char *text, unsigned long len) {
  while (len) {
    const ssize_t done = write(STDERR_FILENO, text, len);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return;
    text += done;
    len -= static_cast<unsigned long>(done);
  }
}

void host_abort(void) {
  abort();
}
