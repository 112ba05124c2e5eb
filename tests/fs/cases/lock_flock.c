// SPDX-License-Identifier: GPL-2.0
// flock(): shared and exclusive, per open file, inherited, beside record locks.
#include "case.h"
#include <sys/file.h>

static void in_another_process(void) {
  const int fd = open("f", O_RDONLY);
  OP(flock(fd, LOCK_EX | LOCK_NB));
  OP(flock(fd, LOCK_SH | LOCK_NB));
}

static int inherited;
static void unlocks(void) {
  OP(flock(inherited, LOCK_UN));
}

static void run_case(void) {
  put("f", "x");
  const int one = FD(open("f", O_RDWR)), two = FD(open("f", O_RDONLY));
  OP(flock(one, LOCK_EX));
  OP(flock(two, LOCK_SH | LOCK_NB));
  OP(flock(one, LOCK_EX | LOCK_NB));
  in_child(in_another_process);
  OP(flock(one, LOCK_SH));
  OP(flock(two, LOCK_SH | LOCK_NB));
  OP(flock(one, LOCK_EX | LOCK_NB));
  in_child(in_another_process);
  OP(flock(one, LOCK_UN));
  OP(flock(two, LOCK_EX | LOCK_NB));
  // A record lock is of another kind.
  struct flock range = {.l_type = F_WRLCK, .l_whence = SEEK_SET};
  OP(fcntl(one, F_SETLK, &range));
  // A duplicate is the same open file; the lock goes with the last of them.
  const int twin = dup(two);
  OP(close(two));
  OP(flock(one, LOCK_SH | LOCK_NB));
  OP(close(twin));
  OP(flock(one, LOCK_SH | LOCK_NB));
  // A child's descriptor is the parent's open file.
  OP(flock(one, LOCK_EX));
  inherited = one;
  in_child(unlocks);
  const int three = FD(open("f", O_RDONLY));
  OP(flock(three, LOCK_EX | LOCK_NB));
  OP(flock(three, 77));
  OP(flock(-1, LOCK_SH));
  const int dir = FD(open(".", O_RDONLY));
  OP(flock(dir, LOCK_EX));
  OP(unlink("f"));
  OP(flock(one, LOCK_EX | LOCK_NB));
}
