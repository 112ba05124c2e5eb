/* SPDX-License-Identifier: GPL-2.0 */
#define _GNU_SOURCE
#include "race.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { kPathSize = 512, kDirectories = 3, kNames = 3, kLevels = 3 };

/* The same numbers everywhere, whichever C library. */
static unsigned next(unsigned *at, unsigned below) {
  *at = *at * 1103515245u + 12345u;
  return (*at >> 16) % below;
}

/* One of 39 paths, of one to three names. */
static void pick(char *path, const char *top, unsigned *at) {
  const unsigned levels = 1 + next(at, kLevels);
  size_t length = (size_t)snprintf(path, kPathSize, "%s/d%u", top, next(at, kDirectories));

  for (unsigned level = 1; level < levels; level++)
    length += (size_t)snprintf(path + length, kPathSize - length, "/n%u", next(at, kNames));
}

/* Trees move into one another, out of reach of pick and in the end of any path: this takes whole
 * ones away, by descriptors. Links lead back into the tree. */
static int remove_tree_at(int above, const char *name) {
  const int fd = openat(above, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  DIR *dir = fd < 0 ? NULL : fdopendir(fd);
  struct dirent *entry;
  int removed = 0;

  while (dir && (entry = readdir(dir))) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    removed |= unlinkat(fd, entry->d_name, 0) == 0 || remove_tree_at(fd, entry->d_name);
  }
  if (dir) closedir(dir);
  return unlinkat(above, name, AT_REMOVEDIR) == 0 || removed;
}

static int remove_tree(const char *path) {
  return remove_tree_at(AT_FDCWD, path);
}

static int list(const char *path) {
  char inner[kPathSize];
  struct dirent *entry;
  struct stat st;
  DIR *dir = opendir(path);

  while (dir && (entry = readdir(dir))) {
    if ((size_t)snprintf(inner, sizeof(inner), "%s/%s", path, entry->d_name) < sizeof(inner))
      lstat(inner, &st);
  }
  if (dir) closedir(dir);
  return 0;
}

static int write_some(const char *path, int flags, unsigned *at) {
  static const char data[2000] = "a few bytes, and zeros";
  const int fd = open(path, flags | O_RDWR, 0666);
  char back[512];
  int written;

  if (fd < 0) return 0;
  written = write(fd, data, next(at, sizeof(data))) > 0;
  if (lseek(fd, 0, SEEK_SET) == 0 && read(fd, back, sizeof(back)) < 0) written = 0;
  close(fd);
  return written;
}

int race_once(const char *top, unsigned *at) {
  char path[kPathSize], other[kPathSize];

  pick(path, top, at);
  pick(other, top, at);
  switch (next(at, 32)) {
    case 0 ... 7:
      return rename(path, other) == 0;
    case 8 ... 12:
      return mkdir(path, 0777) == 0;
    case 13 ... 16:
      return write_some(path, O_CREAT | O_TRUNC, at);
    case 17 ... 19:
      return unlink(path) == 0;
    case 20 ... 22:
      return rmdir(path) == 0;
    case 23 ... 24:
      return link(path, other) == 0;
    case 25:
      return symlink(other + strlen(top) + 1, path) == 0;
    case 26:
      return remove_tree(path);
    case 27:
      return chmod(path, 0777) == 0;
    case 28:
      return truncate(path, next(at, 5000)) == 0;
    case 29:
      return write_some(path, O_APPEND, at);
    default:
      return list(path);
  }
}
