/* SPDX-License-Identifier: GPL-2.0 */
#define _GNU_SOURCE
#include "guest.h"
#include "image.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

enum { kFailed = 1, kSkipped = 77, kSecondsPerCase = 300 };

static int failures; /* of the running case */

int guest_expect(int holds, const char *file, int line, const char *text) {
  if (holds) return 1;
  failures++;
  printf("  %s:%d: %s is not true (errno %d, %s)\n", file, line, text, errno, strerror(errno));
  fflush(stdout);
  return 0;
}

int guest_expect_equal(long long a, long long b, const char *file, int line, const char *text) {
  if (a == b) return 1;
  failures++;
  printf("  %s:%d: %s: %lld against %lld (errno %d, %s)\n", file, line, text, a, b, errno,
         strerror(errno));
  fflush(stdout);
  return 0;
}

void guest_end(void) {
  fflush(stdout);
  _exit(failures ? kFailed : 0);
}

/* ---- a case and its surroundings ---- */

static int step(int result, const char *what) {
  if (result == 0) return 0;
  printf("  %s: %s\n", what, strerror(errno));
  return -1;
}

static int set_up(enum guest_setting setting) {
  if (setting >= GUEST_LOADED && step(load_module("/tarn.ko", ""), "loading tarn.ko")) return -1;
  if (setting < GUEST_MOUNTED) return 0;
  if (step(mount_image("/ext2.img", "ext2", "user_xattr,acl", "/lower"), "mounting the lower ext2"))
    return -1;
  return step(mount("/lower", "/mnt", "tarn", 0, NULL), "mounting tarn");
}

static int take_down(enum guest_setting setting) {
  int error = 0;

  if (setting >= GUEST_MOUNTED) {
    error |= step(umount("/mnt"), "unmounting tarn");
    error |= step(unmount_image("/lower"), "unmounting the lower ext2");
  }
  if (setting >= GUEST_LOADED) error |= step(unload_module("tarn"), "unloading tarn");
  return error;
}

static int run_in_process(void (*run)(void)) {
  const pid_t pid = fork();
  int status = 0;

  if (pid < 0) return step(-1, "fork") ? kFailed : 0;
  if (pid == 0) {
    setpgid(0, 0);
    alarm(kSecondsPerCase);
    run();
    guest_end();
  }
  waitpid(pid, &status, 0);
  /* Nothing of the case may use the mounts any more; what it has left behind, init waits for. */
  while (kill(-pid, SIGKILL) == 0) usleep(1000);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  printf("  ended by signal %d\n", WTERMSIG(status));
  return kFailed;
}

static int run_case(const char *program, const struct guest_case *it) {
  int result = set_up(it->setting) ? kFailed : run_in_process(it->run);

  if (take_down(it->setting) && result != kFailed) result = kFailed;
  printf("%s %s.%s\n",
         result == 0          ? "ok"
         : result == kSkipped ? "skipped"
                              : "FAILED",
         program, it->name);
  fflush(stdout);
  return result == kFailed;
}

int guest_main(const char *program, const struct guest_case *cases) {
  int failed = 0;

  for (const struct guest_case *it = cases; it->name; it++) failed |= run_case(program, it);
  return failed;
}

/* ---- helpers ---- */

int load_module(const char *path, const char *parameters) {
  struct stat st;
  const int fd = open(path, O_RDONLY);
  char *image;
  long result;

  if (fd < 0 || fstat(fd, &st) < 0) return -1;
  image = malloc(st.st_size);
  result = image && read(fd, image, st.st_size) == st.st_size ? 0 : -1;
  close(fd);
  if (result == 0) result = syscall(SYS_init_module, image, st.st_size, parameters);
  free(image);
  return (int)result;
}

int unload_module(const char *name) {
  return (int)syscall(SYS_delete_module, name, O_NONBLOCK);
}

int write_text(const char *path, const char *text) {
  const int fd = open(path, O_WRONLY | O_TRUNC);
  const ssize_t size = (ssize_t)strlen(text);
  int result, saved;

  if (fd < 0) return -1;
  result = write(fd, text, size) == size ? 0 : -1;
  saved = errno;
  close(fd);
  errno = saved;
  return result;
}

long read_text(const char *path, char *buf, size_t size) {
  const int fd = open(path, O_RDONLY);
  size_t used = 0;
  ssize_t got = 0;

  if (fd < 0) return -1;
  while (used < size - 1 && (got = read(fd, buf + used, size - 1 - used)) > 0) used += (size_t)got;
  close(fd);
  buf[used] = 0;
  return got < 0 ? -1 : (long)used;
}

int put_file(const char *path, const void *data, size_t size) {
  const int fd = open(path, O_CREAT | O_TRUNC | O_WRONLY, 0644);
  size_t done = 0;
  ssize_t put = 0;

  if (fd < 0) return -1;
  while (done < size && (put = write(fd, (const char *)data + done, size - done)) > 0)
    done += (size_t)put;
  return close(fd) || done < size ? -1 : 0;
}

int file_holds(const char *path, const void *data, size_t size) {
  char *buf = malloc(size + 2);
  const long got = buf ? read_text(path, buf, size + 2) : -1;
  const int holds = got == (long)size && memcmp(buf, data, size) == 0;

  free(buf);
  return holds;
}

unsigned char pattern(unsigned seed, unsigned long at) {
  return (unsigned char)((at * 31 + at / 251 + seed * 17) & 255);
}

void fill_pattern(void *data, size_t size, unsigned seed) {
  for (size_t i = 0; i < size; i++) ((unsigned char *)data)[i] = pattern(seed, i);
}

void become_user(void) {
  if (setgroups(0, NULL) || setresgid(1000, 1000, 1000) || setresuid(1000, 1000, 1000)) _exit(125);
}

int in_process(int (*work)(void)) {
  int status = 0;
  pid_t pid;

  fflush(stdout);
  pid = fork();
  if (pid == 0) {
    const int result = work();
    fflush(stdout);
    _exit(result);
  }
  if (pid < 0 || waitpid(pid, &status, 0) < 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
