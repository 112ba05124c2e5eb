// SPDX-License-Identifier: GPL-2.0
// Record locks of fcntl(): ranges, kinds, who holds them, and when they go.
#include "case.h"

static void try_lock(int fd, int command, short type, off_t start, off_t length) {
  struct flock lock = {.l_type = type, .l_whence = SEEK_SET, .l_start = start, .l_len = length};
  errno = 0;
  const int result = fcntl(fd, command, &lock);
  const char *kind = type == F_RDLCK ? "read" : type == F_WRLCK ? "write" : "unlock";
  say("%s %s %lld+%lld -> %s", command == F_GETLK ? "ask for" : "set", kind, (long long)start,
      (long long)length, result < 0 ? errno_name(errno) : "0");
  if (command == F_GETLK && result == 0) {
    if (lock.l_type == F_UNLCK) {
      say("  free");
    } else {
      say("  %s lock at %lld+%lld, of %s", lock.l_type == F_RDLCK ? "read" : "write",
          (long long)lock.l_start, (long long)lock.l_len,
          lock.l_pid == getppid() ? "the parent" : "somebody");
    }
  }
}

static struct turn to_child, to_parent;

static void child(void) {
  const int fd = open("f", O_RDWR);
  try_lock(fd, F_GETLK, F_RDLCK, 0, 100);
  try_lock(fd, F_SETLK, F_RDLCK, 0, 5);
  try_lock(fd, F_SETLK, F_WRLCK, 5, 5);
  try_lock(fd, F_SETLK, F_WRLCK, 10, 10);
  try_lock(fd, F_SETLK, F_RDLCK, 20, 10);
  try_lock(fd, F_GETLK, F_WRLCK, 20, 10);
  try_lock(fd, F_SETLK, F_WRLCK, 20, 10);
  try_lock(fd, F_SETLK, F_WRLCK, 1000, 0);
  pass(&to_parent);
  wait_for(&to_child);
  // The parent has closed another descriptor of the file: all its locks are gone.
  try_lock(fd, F_GETLK, F_WRLCK, 0, 0);
  try_lock(fd, F_SETLK, F_WRLCK, 0, 0);
  pass(&to_parent);
  wait_for(&to_child);
}

static void run_case(void) {
  put("f", "0123456789");
  make_turn(&to_child);
  make_turn(&to_parent);
  const int fd = FD(open("f", O_RDWR));
  try_lock(fd, F_SETLK, F_WRLCK, 0, 10);
  try_lock(fd, F_SETLK, F_RDLCK, 20, 10);
  try_lock(fd, F_SETLK, F_UNLCK, 4, 2);
  try_lock(fd, F_GETLK, F_WRLCK, 0, 10);
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    child();
    _exit(0);
  }
  wait_for(&to_parent);
  try_lock(fd, F_SETLK, F_WRLCK, 1000, 1);
  try_lock(fd, F_SETLK, F_WRLCK, 4, 1);
  close(open("f", O_RDONLY));
  pass(&to_child);
  wait_for(&to_parent);
  try_lock(fd, F_SETLK, F_RDLCK, 0, 1);
  pass(&to_child);
  say_end("the child", pid);
  // A process that ends leaves no lock.
  try_lock(fd, F_SETLK, F_WRLCK, 0, 0);

  const int reader = FD(open("f", O_RDONLY));
  try_lock(reader, F_SETLK, F_WRLCK, 0, 1);
  try_lock(reader, F_SETLK, F_RDLCK, 0, 1);
  const int writer = FD(open("f", O_WRONLY));
  try_lock(writer, F_SETLK, F_RDLCK, 0, 1);
  try_lock(writer, F_SETLK, F_WRLCK, -5, 1);
  try_lock(writer, F_SETLK, F_WRLCK, 10, -5);
  const int dir = FD(open(".", O_RDONLY));
  try_lock(dir, F_SETLK, F_RDLCK, 0, 0);
  try_lock(-1, F_SETLK, F_RDLCK, 0, 0);
}
