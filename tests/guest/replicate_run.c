/* SPDX-License-Identifier: GPL-2.0 */
#define _GNU_SOURCE
#include "replicate_run.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "guest.h"

enum { kPatience = 60000, kPoll = 20, kPath = 4096, kLargest = 1 << 20 };

const char kOutput[] = "/tmp/output";

/* ---- programs ---- */

void start_program(struct program *program, const char *output, const char *const *arguments) {
  const int file = open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);

  REQUIRE(file >= 0);
  fflush(stdout);
  program->output = output;
  program->pid = fork();
  REQUIRE(program->pid >= 0);
  if (program->pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(file, 1);
    dup2(file, 2);
    execv(arguments[0], (char *const *)arguments);
    _exit(127);
  }
  close(file);
}

int end_of_program(struct program *program) {
  int status = 0;

  REQUIRE(waitpid(program->pid, &status, 0) == program->pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run(const char *const *arguments) {
  struct program program;

  start_program(&program, kOutput, arguments);
  return end_of_program(&program);
}

int says(const char *file, const char *text) {
  static char content[kLargest];
  int count = 0;

  if (read_text(file, content, sizeof(content)) < 0) return 0;
  for (const char *at = content; (at = strstr(at, text)); at++) count++;
  return count;
}

int comes_to_say(const char *file, const char *text) {
  for (int waited = 0; waited < kPatience; waited += kPoll) {
    if (says(file, text)) return 1;
    usleep(kPoll * 1000);
  }
  printf("  %s does not say \"%s\"\n", file, text);
  return 0;
}

/* ---- changes ---- */

static void path_of(char *path, const char *directory, const char *name) {
  REQUIRE(snprintf(path, kPath, "%s/%s", directory, name) < kPath);
}

static int write_at(const char *path, off_t offset, size_t size, unsigned seed) {
  const int file = open(path, O_WRONLY | O_CREAT, 0640);
  char *data = malloc(size);
  int result = -1;

  if (file >= 0 && data) {
    fill_pattern(data, size, seed);
    result = pwrite(file, data, size, offset) == (ssize_t)size ? 0 : -1;
  }
  free(data);
  close(file);
  return result;
}

static void make_files(const char *directory) {
  char path[kPath], other[kPath];

  path_of(path, directory, "small");
  REQUIRE(write_at(path, 0, 100, 1) == 0);
  REQUIRE(write_at(path, 50, 3900, 2) == 0);
  path_of(path, directory, "large");
  REQUIRE(write_at(path, 0, 3000000, 3) == 0);
  REQUIRE(write_at(path, 777777, 99999, 4) == 0);
  path_of(path, directory, "sparse");
  REQUIRE(write_at(path, 1000000, 1, 5) == 0);
  path_of(path, directory, "new\nline \xff");
  REQUIRE(write_at(path, 0, 5, 6) == 0);
  path_of(path, directory, "cut");
  REQUIRE(write_at(path, 0, 20000, 7) == 0);
  REQUIRE(truncate(path, 12345) == 0);
  REQUIRE(truncate(path, 15000) == 0);
  path_of(path, directory, "two names");
  REQUIRE(write_at(path, 0, 10, 8) == 0);
  path_of(other, directory, "d/the other");
  REQUIRE(link(path, other) == 0);
  path_of(path, directory, "gone");
  REQUIRE(write_at(path, 0, 4097, 9) == 0);
  REQUIRE(unlink(path) == 0);
}

static void make_attributes(const char *directory) {
  const struct timeval times[2] = {{1000000000, 123456}, {1100000000, 654321}};
  char path[kPath];

  path_of(path, directory, "small");
  REQUIRE(chmod(path, 04751) == 0);
  REQUIRE(chown(path, 12, 34) == 0);
  REQUIRE(utimes(path, times) == 0);
  path_of(path, directory, "d");
  REQUIRE(chmod(path, 01777) == 0);
  REQUIRE(chown(path, 56, 78) == 0);
  path_of(path, directory, "link");
  REQUIRE(lchown(path, 90, 12) == 0);
}

/* No driver has the device: it must never be opened. */
static void make_special(const char *directory) {
  char path[kPath];

  path_of(path, directory, "fifo");
  REQUIRE(mkfifo(path, 0600) == 0);
  REQUIRE(chmod(path, 0640) == 0);
  path_of(path, directory, "device");
  REQUIRE(mknod(path, S_IFCHR | 0600, makedev(200, 7)) == 0);
  REQUIRE(chmod(path, 0604) == 0 && lchown(path, 11, 22) == 0);
  path_of(path, directory, "socket");
  REQUIRE(mknod(path, S_IFSOCK | 0600, 0) == 0);
  REQUIRE(chmod(path, 0606) == 0);
}

void make_changes(const char *directory) {
  char path[kPath], other[kPath];

  path_of(path, directory, "d");
  REQUIRE(mkdir(path, 0755) == 0);
  path_of(path, directory, "d/e");
  REQUIRE(mkdir(path, 0700) == 0);
  path_of(path, directory, "empty");
  REQUIRE(mkdir(path, 0700) == 0);
  REQUIRE(rmdir(path) == 0);
  path_of(path, directory, "link");
  REQUIRE(symlink("../not there/\xfe", path) == 0);
  make_files(directory);
  make_attributes(directory);
  make_special(directory);
  path_of(path, directory, "sparse");
  path_of(other, directory, "d/e/moved");
  REQUIRE(rename(path, other) == 0);
  path_of(path, directory, "d/e");
  path_of(other, directory, "e");
  REQUIRE(rename(path, other) == 0);
}

/* ---- trees ---- */

static int differs(const char *left, const char *what) {
  printf("  %s: different %s\n", left, what);
  return 1;
}

static int contents_differ(const char *left, const char *right) {
  static char a[65536], b[65536];
  const int one = open(left, O_RDONLY), other = open(right, O_RDONLY);
  int different = one < 0 || other < 0;

  while (!different) {
    const ssize_t got = read(one, a, sizeof(a));
    different = got < 0 || read(other, b, sizeof(b)) != got || memcmp(a, b, got) != 0;
    if (got == 0) break;
  }
  close(one);
  close(other);
  return different;
}

static int targets_differ(const char *left, const char *right) {
  char a[kPath] = "", b[kPath] = "";

  return readlink(left, a, kPath - 1) <= 0 || readlink(right, b, kPath - 1) <= 0 || strcmp(a, b);
}

/* Names that the one directory holds and the other does not; with `deeper`, what both hold is
 * compared. */
static int entries_differ(const char *left, const char *right, int deeper) {
  char one[kPath], other[kPath];
  int different = 0;
  struct dirent *entry;
  struct stat st;
  DIR *directory = opendir(left);

  REQUIRE(directory != NULL);
  while ((entry = readdir(directory))) {
    if (!strcmp(entry->d_name, ".") || !strcmp(entry->d_name, "..")) continue;
    path_of(one, left, entry->d_name);
    path_of(other, right, entry->d_name);
    if (lstat(other, &st) != 0)
      different += differs(one, "directory: the other has no such name");
    else if (deeper)
      different += tree_differences(one, other);
  }
  closedir(directory);
  return different;
}

int tree_differences(const char *left, const char *right) {
  struct stat a, b;

  if (lstat(left, &a) != 0 || lstat(right, &b) != 0) return differs(left, "existence");
  int different = 0;
  if (a.st_mode != b.st_mode) different += differs(left, "type or mode");
  if (a.st_uid != b.st_uid || a.st_gid != b.st_gid) different += differs(left, "owner");
  if (a.st_rdev != b.st_rdev) different += differs(left, "device");
  if (a.st_nlink != b.st_nlink) different += differs(left, "number of links");
  if ((a.st_mode ^ b.st_mode) & S_IFMT) return different;
  if (S_ISDIR(a.st_mode))
    return different + entries_differ(left, right, 1) + entries_differ(right, left, 0);
  if (S_ISLNK(a.st_mode) && targets_differ(left, right)) different += differs(left, "target");
  if (!S_ISREG(a.st_mode)) return different;
  if (a.st_size != b.st_size || contents_differ(left, right))
    different += differs(left, "contents");
  return different;
}
