/* SPDX-License-Identifier: GPL-2.0 */
/*
 * parity KIND: runs every case of tests/fs/cases, the programs in /cases, on a plain directory of
 * a file system and on a mount over another of its directories. What a case says becomes lines
 * "transcript KIND CASE plain|mount TEXT" for the comparison outside the guest, and so does what it
 * leaves behind.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "guest.h"
#include "image.h"
#include "nfs.h"

enum { kSecondsPerCase = 300 };

/* A tmpfs counts each name as an inode; by itself it allows half as many as there are pages. */
#define TMPFS_OPTIONS "size=96m,nr_inodes=100000,mode=755"

static const char *kind;

static void say(const char *name, const char *where, const char *text) {
  printf("transcript %s %s %s %s\n", kind, name, where, text);
}

/* ---- the file system under it ---- */

static int mount_lower(void) {
  if (strcmp(kind, "nfs") == 0) return nfs_mount("/lower");
  if (strcmp(kind, "tmpfs") == 0) return mount("lower", "/lower", "tmpfs", 0, TMPFS_OPTIONS);
  if (strcmp(kind, "ext3") == 0)
    return mount_image("/ext3.img", "ext3", "user_xattr,acl", "/lower");
  if (strcmp(kind, "ext2") == 0)
    return mount_image("/ext2.img", "ext2", "user_xattr,acl", "/lower");
  errno = EINVAL;
  return -1;
}

/*
 * A tmpfs holds a reference on each of its names and gives it back when the name is removed or, at
 * the end, found. The names that the layer has dropped from the cache can be neither: unmounted, it
 * would leave their inodes behind. So it makes room and stays until the machine is off.
 */
static int unmount_lower(void) {
  if (strcmp(kind, "nfs") == 0) return nfs_unmount("/lower");
  if (strcmp(kind, "tmpfs") == 0) return mount("/lower", "/lost", NULL, MS_MOVE, NULL);
  return unmount_image("/lower");
}

/* ---- what a case leaves behind ---- */

static unsigned long sum_of(const char *path) {
  unsigned char buf[4096];
  unsigned long sum = 5381;
  ssize_t got;
  const int fd = open(path, O_RDONLY | O_NONBLOCK);

  while (fd >= 0 && (got = read(fd, buf, sizeof(buf))) > 0) {
    for (ssize_t i = 0; i < got; i++) sum = sum * 33 + buf[i];
  }
  if (fd >= 0) close(fd);
  return sum;
}

/* A name in printable letters. */
static void escape(char *out, size_t size, const char *name) {
  size_t used = 0;

  for (; *name && used + 5 < size; name++) {
    const unsigned char c = (unsigned char)*name;
    used += (size_t)snprintf(out + used, size - used,
                             c > ' ' && c < 127 && c != '\\' ? "%c" : "\\%03o", c);
  }
  out[used] = 0;
}

static void say_left(const char *name, const char *where, const char *path, const char *shown) {
  char text[900], name_text[512], target[256] = "", target_text[300];
  struct stat st;

  if (lstat(path, &st)) return;
  if (S_ISLNK(st.st_mode) && readlink(path, target, sizeof(target) - 1) < 0) return;
  escape(name_text, sizeof(name_text), shown);
  escape(target_text, sizeof(target_text), target);
  snprintf(text, sizeof(text),
           "left behind: %s mode %06o owner %u:%u links %u size %lld sum %lx %s", name_text,
           st.st_mode, st.st_uid, st.st_gid, (unsigned)st.st_nlink,
           S_ISREG(st.st_mode) ? (long long)st.st_size : -1LL,
           S_ISREG(st.st_mode) ? sum_of(path) : 0UL, target_text);
  say(name, where, text);
}

static void say_tree(const char *name, const char *where, const char *top, const char *below) {
  char path[1024], inner[768];
  struct dirent **entries;
  int count;

  snprintf(path, sizeof(path), "%s/%s", top, below);
  count = scandir(path, &entries, NULL, alphasort);
  for (int i = 0; i < count; i++) {
    if (strcmp(entries[i]->d_name, ".") && strcmp(entries[i]->d_name, "..")) {
      struct stat st;
      snprintf(inner, sizeof(inner), "%s%s%s", below, *below ? "/" : "", entries[i]->d_name);
      if ((size_t)snprintf(path, sizeof(path), "%s/%s", top, inner) >= sizeof(path)) continue;
      say_left(name, where, path, inner);
      if (lstat(path, &st) == 0 && S_ISDIR(st.st_mode)) say_tree(name, where, top, inner);
    }
    free(entries[i]);
  }
  if (count >= 0) free(entries);
}

/* ---- running ---- */

static void run_program(const char *name, const char *dir, int output) {
  char program[300];
  const int null = open("/dev/null", O_RDWR);

  dup2(null, 0);
  dup2(output, 1);
  dup2(null, 2);
  setpgid(0, 0);
  snprintf(program, sizeof(program), "/cases/%s", name);
  if (chdir(dir) == 0) execl(program, program, (char *)NULL);
  _exit(127);
}

static pid_t running;

/* A case that is not done in time, and whatever it has started. */
static void end_running(int signal) {
  (void)signal;
  kill(-running, SIGKILL);
}

/* The case's exit status, or 128 and the signal that ended it. */
static int run_case(const char *name, const char *where, const char *dir) {
  int ends[2], status = 0;
  char line[900];
  FILE *lines;
  pid_t pid;

  if (mkdir(dir, 0755) || pipe(ends)) return -1;
  fflush(stdout);
  pid = fork();
  if (pid == 0) {
    close(ends[0]);
    run_program(name, dir, ends[1]);
  }
  setpgid(pid, pid);
  running = pid;
  alarm(kSecondsPerCase);
  close(ends[1]);
  lines = fdopen(ends[0], "re");
  while (lines && fgets(line, sizeof(line), lines)) {
    line[strcspn(line, "\n")] = 0;
    say(name, where, line);
  }
  if (lines) fclose(lines);
  waitpid(pid, &status, 0);
  alarm(0);
  kill(-pid, SIGKILL);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void say_status(const char *name, const char *where, int status) {
  char text[64];

  snprintf(text, sizeof(text), "exit status %d", status);
  say(name, where, text);
}

static void run_both(const char *name) {
  char dir[300], below[300];
  int status;

  snprintf(dir, sizeof(dir), "/lower/plain/%s", name);
  status = run_case(name, "plain", dir);
  say_tree(name, "plain", dir, "");
  say_status(name, "plain", status);
  snprintf(dir, sizeof(dir), "/mnt/%s", name);
  snprintf(below, sizeof(below), "/lower/below/%s", name);
  status = run_case(name, "mount", dir);
  sync(); /* what was stored in maps is on its way */
  say_tree(name, "mount", below, "");
  say_status(name, "mount", status);
  fflush(stdout);
}

static int need(int result, const char *what) {
  if (result == 0) return 0;
  printf("FAILED parity over %s: %s: %s\n", kind, what, strerror(errno));
  return 1;
}

static int run_all(void) {
  struct dirent **entries;
  const int count = scandir("/cases", &entries, NULL, alphasort);

  for (int i = 0; i < count; i++) {
    if (entries[i]->d_name[0] != '.') run_both(entries[i]->d_name);
  }
  return count > 2 ? 0 : -1;
}

int main(int argc, char **argv) {
  int failed;

  kind = argc > 1 ? argv[1] : "";
  signal(SIGALRM, end_running);
  if (need(mount_lower(), "mounting the lower file system")) return 1;
  if (need(mkdir("/lower/plain", 0755) || mkdir("/lower/below", 0755), "making directories") ||
      need(load_module("/tarn.ko", ""), "loading tarn.ko") ||
      need(mount("/lower/below", "/mnt", "tarn", 0, NULL), "mounting tarn"))
    return 1;
  failed = need(run_all(), "running the cases");
  failed |= need(umount("/mnt"), "unmounting tarn");
  failed |= need(unload_module("tarn"), "unloading tarn.ko");
  failed |= need(unmount_lower(), "unmounting the lower file system");
  return failed;
}
