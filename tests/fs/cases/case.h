// SPDX-License-Identifier: GPL-2.0
// What a file-system case is written with.
//
// A case is one C file in this folder. It defines run_case(), which works in an empty directory,
// its current one, and prints what each operation answered. The runner compares what it prints on a
// plain directory with what it prints on a mount, so a case prints nothing that differs from run to
// run: no times, inode numbers, process ids, descriptors. It needs only the system calls of
// Linux 2.6.18; what a later kernel added answers ENOSYS there, in both places.
//
// OP, FD and MAP print the operation as it stands in the source, an arrow and its result. A case
// that cannot run here ends through skip(). Whatever cannot be set up is printed as well, and so
// never passes for agreement of two runs that did nothing.

#ifndef CASE_H
#define CASE_H

#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "case_errno.h"

enum { kSkipped = 77, kUser = 12345, kOtherUser = 23456, kGroup = 34567, kPage = 4096 };

static void run_case(void);

// An address that no process has; volatile, for compilers refuse to pass what they know to be
// wrong.
static void *volatile nowhere __attribute__((unused)) = (void *)8;

// A number that a compiler does not see, for it refuses those that are wrong.
static inline int opaque(int number) {
  volatile int unseen = number;
  return unseen;
}

// Prints one line.
__attribute__((format(printf, 1, 2))) static inline void say(const char *format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  putchar('\n');
  fflush(stdout);
}

// Ends the case: it is counted as skipped.
static inline void skip(const char *reason) {
  fprintf(stderr, "skipped: %s\n", reason);
  exit(kSkipped);
}

// Some answers of an NFS client depend on what it has seen of the server at that moment.
static inline int over_nfs(void) {
  struct statfs fs;
  return statfs(".", &fs) == 0 && fs.f_type == 0x6969;
}

// Whether nothing is in a directory but what an NFS client keeps of removed files.
static inline int only_removed_files(const char *path) {
  DIR *dir = opendir(path);
  struct dirent *entry;
  int only = dir != NULL;

  while (only && (entry = readdir(dir)))
    only = strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0 ||
           strncmp(entry->d_name, ".nfs", 4) == 0;
  if (dir) closedir(dir);
  return only;
}

// rmdir() of a directory whose files have just been removed. A file that its NFS client has open,
// as that below a mount has whatever was open above, is given another name first; that goes a
// moment later.
static inline int rmdir_emptied(const char *path) {
  int result = rmdir(path);

  for (int tries = 0; tries < 500 && result < 0 && errno == ENOTEMPTY && over_nfs(); tries++) {
    if (!only_removed_files(path)) {
      errno = ENOTEMPTY;
      break;
    }
    usleep(10000);
    result = rmdir(path);
  }
  return result;
}

static inline void need_root(void) {
  if (geteuid() != 0) skip("only root can do this");
}

static inline long report_op(const char *text, long result) {
  const int err = errno;
  if (result == -1) {
    say("%s -> -1 %s", text, errno_name(err));
  } else {
    say("%s -> %ld", text, result);
  }
  errno = err;
  return result;
}

static inline int report_fd(const char *text, int fd) {
  const int err = errno;
  if (fd < 0) {
    say("%s -> -1 %s", text, errno_name(err));
  } else {
    say("%s -> open", text);
  }
  errno = err;
  return fd;
}

static inline void *report_map(const char *text, void *map) {
  const int err = errno;
  say("%s -> %s", text, map == (void *)-1 ? errno_name(err) : "mapped");
  errno = err;
  return map;
}

// Each yields what the call yielded, with its errno.
#define OP(call) report_op(#call, (errno = 0, (long)(call)))
#define FD(call) report_fd(#call, (errno = 0, (call)))
#define MAP(call) ((unsigned char *)report_map(#call, (errno = 0, (call))))

// Setting up: silent when it works, a line in the transcript when it does not.
#define SETUP(call)                                                                \
  do {                                                                             \
    if ((long)(call) == -1) say("setting up: %s -> %s", #call, errno_name(errno)); \
  } while (0)

// A copy of this program, as it was started.
static inline void copy_self(const char *to) {
  static char buf[1 << 16];
  const int in = open("/proc/self/exe", O_RDONLY);
  if (in < 0) skip("/proc is not mounted");
  const int out = open(to, O_WRONLY | O_CREAT | O_TRUNC, 0755);
  for (ssize_t got; (got = read(in, buf, sizeof(buf))) > 0;)
    SETUP(write(out, buf, (size_t)got) == got ? 0 : -1);
  SETUP(close(out));
  SETUP(close(in));
}

// Prints bytes as text in which runs are counted: "ab"+3x\0+"c".
static inline void say_bytes(const char *what, const void *data, size_t size) {
  const unsigned char *bytes = data;
  printf("%s: %zu bytes", what, size);
  for (size_t at = 0, runs = 0; at < size && runs < 64; runs++) {
    size_t end = at + 1;
    while (end < size && bytes[end] == bytes[at]) end++;
    const int printable = bytes[at] > ' ' && bytes[at] < 0x7f;
    printf(printable ? " %zux%c" : " %zux\\%03o", end - at, bytes[at]);
    at = end;
  }
  putchar('\n');
  fflush(stdout);
}

// Prints the whole content of a file, as say_bytes does.
static inline void say_file(const char *path) {
  static char buf[1 << 22];
  const int fd = open(path, O_RDONLY);
  if (fd < 0) {
    say("content of %s: %s", path, errno_name(errno));
    return;
  }
  size_t size = 0;
  ssize_t got;
  while (size < sizeof(buf) && (got = read(fd, buf + size, sizeof(buf) - size)) > 0)
    size += (size_t)got;
  close(fd);
  say_bytes(path, buf, size);
}

static inline const char *type_name(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "file";
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "link";
    case S_IFIFO:
      return "fifo";
    case S_IFSOCK:
      return "socket";
    case S_IFCHR:
      return "character device";
    case S_IFBLK:
      return "block device";
    default:
      return "nothing known";
  }
}

static inline void say_stat_of(const char *what, const struct stat *st) {
  // How large a directory is depends on its history, also in a plain one.
  const long long size = S_ISDIR(st->st_mode) ? -1 : (long long)st->st_size;
  say("%s: %s %04o links %lu owner %u:%u size %lld", what, type_name(st->st_mode),
      (unsigned)(st->st_mode & 07777), (unsigned long)st->st_nlink, st->st_uid, st->st_gid, size);
}

// Prints type, mode, links, owner and size of what a name stands for; a link is not followed.
static inline void say_stat(const char *path) {
  struct stat st;
  if (lstat(path, &st) < 0) {
    say("%s: %s", path, errno_name(errno));
  } else {
    say_stat_of(path, &st);
  }
}

static inline void say_fstat(const char *what, int fd) {
  struct stat st;
  if (fstat(fd, &st) < 0) {
    say("%s: %s", what, errno_name(errno));
  } else {
    say_stat_of(what, &st);
  }
}

// Makes a file that holds a text.
static inline void put(const char *path, const char *text) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  SETUP(fd);
  SETUP(write(fd, text, strlen(text)) == (ssize_t)strlen(text) ? 0 : -1);
  SETUP(close(fd));
}

// Prints how a process ended.
static inline void say_end(const char *who, pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) < 0) {
    say("%s: %s", who, errno_name(errno));
  } else if (WIFSIGNALED(status)) {
    say("%s was ended by signal %d", who, WTERMSIG(status));
  } else {
    say("%s ended with %d", who, WEXITSTATUS(status));
  }
}

// Runs work() in a process of its own, and prints how that ended unless it ended well.
static inline void in_child(void (*work)(void)) {
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    work();
    _exit(0);
  }
  int status = 0;
  SETUP(pid);
  SETUP(waitpid(pid, &status, 0));
  if (WIFSIGNALED(status)) say("the process was ended by signal %d", WTERMSIG(status));
  if (WIFEXITED(status) && WEXITSTATUS(status))
    say("the process ended with %d", WEXITSTATUS(status));
}

// Becomes a user with one group and, if it is not 0, one more. There is no way back: call it in a
// child.
static inline void become(uid_t uid, gid_t gid, gid_t more) {
  if (setgroups(more ? 1 : 0, &more) < 0 || setresgid(gid, gid, gid) < 0 ||
      setresuid(uid, uid, uid) < 0) {
    say("setting up: becoming %u -> %s", uid, errno_name(errno));
    _exit(1);
  }
  say("as user %u:%u", uid, gid);
}

// Steps that two processes take in turn: make_turn() before the fork, then pass() lets the other go
// on and wait_for() waits for that.
struct turn {
  int fd[2];
};

static inline void make_turn(struct turn *turn) {
  SETUP(pipe(turn->fd));
}

static inline void pass(const struct turn *turn) {
  SETUP(write(turn->fd[1], "x", 1));
}

static inline void wait_for(const struct turn *turn) {
  char x;
  while (read(turn->fd[0], &x, 1) < 0 && errno == EINTR) {
  }
}

int main(void) {
  umask(022);
  run_case();
  fflush(stdout);
  return 0;
}

#endif
