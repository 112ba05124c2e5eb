// SPDX-License-Identifier: GPL-2.0
// Record locks that are waited for: granted, interrupted, and never because of each other.
#include "case.h"
#include <signal.h>

static struct turn to_child, to_parent;

static int lock(int fd, int command, short type, off_t start) {
  struct flock range = {.l_type = type, .l_whence = SEEK_SET, .l_start = start, .l_len = 1};
  return fcntl(fd, command, &range);
}

static void nothing(int signal) {
  (void)signal;
}

static void waits(void) {
  const int fd = open("f", O_RDWR);
  pass(&to_parent);
  OP(lock(fd, F_SETLKW, F_WRLCK, 0));
  say("the child has the lock");
}

static void is_interrupted(void) {
  const int fd = open("f", O_RDWR);
  struct sigaction action = {.sa_handler = nothing};
  sigaction(SIGALRM, &action, NULL);
  alarm(1);
  OP(lock(fd, F_SETLKW, F_WRLCK, 0));
}

static int is_told(int fd, off_t start) {
  return lock(fd, F_SETLKW, F_WRLCK, start) < 0 && errno == EDEADLK;
}

// Holds 1 and asks for 0, while the parent, who holds 0, asks for 1.
static void crosses(void) {
  const int fd = open("f", O_RDWR);
  SETUP(lock(fd, F_SETLKW, F_WRLCK, 1));
  pass(&to_parent);
  _exit(is_told(fd, 0));
}

static void run_case(void) {
  put("f", "0123456789");
  make_turn(&to_child);
  make_turn(&to_parent);
  const int fd = FD(open("f", O_RDWR));
  OP(lock(fd, F_SETLK, F_WRLCK, 0));
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    waits();
    _exit(0);
  }
  wait_for(&to_parent);
  usleep(100000);
  say("the parent gives it up");
  SETUP(lock(fd, F_SETLK, F_UNLCK, 0));
  say_end("the child", pid);

  OP(lock(fd, F_SETLK, F_WRLCK, 0));
  in_child(is_interrupted);
  fflush(stdout);
  pid = fork();
  if (pid == 0) crosses();
  wait_for(&to_parent);
  // Whoever asks last is told that nobody would ever go on; which of the two that is, time decides.
  int told = is_told(fd, 1), status = 0;
  OP(lock(fd, F_SETLK, F_UNLCK, 0));
  SETUP(waitpid(pid, &status, 0));
  told += WEXITSTATUS(status);
  say("told so: %d", told);
}
