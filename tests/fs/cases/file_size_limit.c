// SPDX-License-Identifier: GPL-2.0
// RLIMIT_FSIZE: short writes up to it, the signal, the error, truncation.
#include "case.h"
#include <signal.h>
#include <sys/resource.h>

static int signals;
static void count(int signal) {
  (void)signal;
  signals++;
}

static void limited(void) {
  static char data[8000];
  memset(data, 'x', sizeof(data));
  const struct rlimit limit = {10000, 10000};
  struct sigaction action = {.sa_handler = count};
  sigaction(SIGXFSZ, &action, NULL);
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  SETUP(setrlimit(RLIMIT_FSIZE, &limit));
  OP(write(fd, data, 8000));
  OP(write(fd, data, 8000));
  say("signals %d", signals);
  OP(write(fd, data, 8000));
  say("signals %d", signals);
  OP(pwrite(fd, data, 1, 10000));
  OP(pwrite(fd, data, 2, 9999));
  OP(pwrite(fd, data, 100, 50));
  say("signals %d", signals);
  OP(ftruncate(fd, 10001));
  say("signals %d", signals);
  OP(ftruncate(fd, 10000));
  OP(truncate("f", 20000));
  OP(truncate("f", 100));
  say("signals %d", signals);
  OP(pwrite(fd, data, 0, 20000));
  say_stat("f");
}

static void killed(void) {
  const struct rlimit limit = {10, 10};
  const int fd = open("g", O_RDWR | O_CREAT, 0644);
  SETUP(setrlimit(RLIMIT_FSIZE, &limit));
  SETUP(write(fd, "0123456789", 10));
  SETUP(write(fd, "x", 1));
}

static void run_case(void) {
  in_child(limited);
  in_child(killed);
  say_file("g");
}
