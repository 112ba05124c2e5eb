/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The portable cases of tests/ukern, inside this kernel. Each runs in a process of its own whose
 * root is an empty tmpfs.
 */
#define _GNU_SOURCE
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

#define PARAMETERS "/sys/module/tarn_cases/parameters/"

enum { kSecondsPerCase = 200 };

/* Cases of these suites look at pages on their way to a disk; times of a nanosecond, as others need
 * them, are not to be had on one. */
static const char *const on_disk[] = {"page_cache.", "writeback.", "xattr."};

static int failed;

static int number_of_cases(void) {
  char text[32];
  return read_text(PARAMETERS "count", text, sizeof(text)) > 0 ? atoi(text) : -1;
}

static int on_a_disk(const char *name) {
  for (size_t i = 0; i < sizeof(on_disk) / sizeof(*on_disk); i++) {
    if (strncmp(name, on_disk[i], strlen(on_disk[i])) == 0) return 1;
  }
  return 0;
}

/* Makes it the next to run. */
static void select_case(int number, char *name, size_t size) {
  char text[32];

  snprintf(text, sizeof(text), "%d", number);
  if (write_text(PARAMETERS "select", text) || read_text(PARAMETERS "name", name, size) < 0) {
    printf("FAILED kernel: case %d cannot be selected: %s\n", number, strerror(errno));
    exit(1);
  }
  name[strcspn(name, "\n")] = 0;
}

static int make_root(int disk) {
  return disk ? mount_image("/ext2.img", "ext2", "user_xattr,acl", "/lower")
              : mount("lower", "/lower", "tmpfs", 0, NULL);
}

static int drop_root(int disk) {
  return disk ? unmount_image("/lower") : umount("/lower");
}

/* In the process of the case. */
static int run_in_root(int run) {
  if (chroot("/lower") || chdir("/")) return 2;
  rmdir("/lost+found");
  signal(SIGXFSZ, SIG_IGN);
  umask(0);
  alarm(kSecondsPerCase);
  return write(run, "1", 1) == 1 ? 0 : 1;
}

static int run_in_process(void) {
  const int run = open(PARAMETERS "run", O_WRONLY | O_CLOEXEC);
  const pid_t pid = fork();
  int status = 0;

  if (pid == 0) _exit(run_in_root(run));
  waitpid(pid, &status, 0);
  close(run);
  if (WIFSIGNALED(status)) printf("  ended by signal %d\n", WTERMSIG(status));
  return status;
}

static void run_case(int number) {
  char name[128];
  int disk, bad;

  select_case(number, name, sizeof(name));
  disk = on_a_disk(name);
  if (make_root(disk)) {
    printf("FAILED kernel/%s: its root cannot be made: %s\n", name, strerror(errno));
    exit(1);
  }
  bad = run_in_process();
  if (drop_root(disk)) {
    printf("  what the case has used cannot be unmounted: %s\n", strerror(errno));
    bad = 1;
  }
  if (bad) failed = 1;
  printf("%s kernel/%s\n", bad ? "FAILED" : "ok", name);
  fflush(stdout);
}

int main(void) {
  int count;

  if (load_module("/tarn_cases.ko", "")) {
    printf("FAILED kernel: tarn_cases.ko does not load: %s\n", strerror(errno));
    return 1;
  }
  count = number_of_cases();
  for (int i = 0; i < count; i++) run_case(i);
  if (count <= 0 || unload_module("tarn_cases")) {
    printf("FAILED kernel: %d cases, and then %s\n", count, strerror(errno));
    failed = 1;
  }
  return failed;
}
