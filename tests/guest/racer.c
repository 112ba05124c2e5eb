/* SPDX-License-Identifier: GPL-2.0 */
/*
 * racer KIND SECONDS: names change on a mount and in the directory below it at the same time, by
 * processes that agree on nothing but the few names that they all use. Whatever each call answers,
 * none may wait for ever, and the lower file system must be whole behind it: its image is sent over
 * the second serial line, as lines "image KIND OFFSET BYTES", for e2fsck outside the guest.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "guest.h"
#include "image.h"
#include "race.h"

enum { kAbove = 4, kBelow = 3, kWorkers = kAbove + kBelow, kGraceSeconds = 90, kChunk = 256 };

static const char *kind;
static int seconds;

/* What the workers and the one that started them share. */
struct progress {
  volatile int stop;
  volatile unsigned long changes[kWorkers];
};

static struct progress *progress;

static pid_t start_worker(int number) {
  const int above = number < kAbove;
  const pid_t pid = fork();

  if (pid) return pid;
  setpgid(0, 0); /* whoever ends the case's processes waits for none that cannot be ended */
  alarm(0);
  umask(0);
  if (above && number % 2) become_user();
  for (unsigned at = (unsigned)number + 1; !progress->stop;)
    progress->changes[number] += (unsigned long)race_once(above ? "/mnt" : "/lower", &at);
  _exit(0);
}

/* What the kernel says of a process: its state and where it waits. */
static void say_stuck(int number, pid_t pid) {
  char path[64], text[512], place[128] = "?", *state;

  snprintf(path, sizeof(path), "/proc/%d/stat", pid);
  state = read_text(path, text, sizeof(text)) > 0 ? strrchr(text, ')') : NULL;
  snprintf(path, sizeof(path), "/proc/%d/wchan", pid);
  read_text(path, place, sizeof(place));
  printf("  a worker %s did not end: state %c, waits in %s, %lu changes\n",
         number < kAbove ? "on the mount" : "below", state && state[1] ? state[2] : '?', place,
         progress->changes[number]);
  fflush(stdout);
}

/* Whether all workers came to their end in time. */
static int all_ended(pid_t *workers) {
  int left = kWorkers;

  for (int waited = 0; waited < kGraceSeconds * 10; waited++) {
    left = 0;
    for (int i = 0; i < kWorkers; i++) {
      if (workers[i] && waitpid(workers[i], NULL, WNOHANG) == workers[i]) workers[i] = 0;
      left += workers[i] != 0;
    }
    if (!left) return 1;
    usleep(100000);
  }
  for (int i = 0; i < kWorkers; i++) {
    if (workers[i]) say_stuck(i, workers[i]);
  }
  write_text("/proc/sysrq-trigger", "t"); /* where it has one, the kernel says who waits for whom */
  return 0;
}

static void race(void) {
  pid_t workers[kWorkers];
  unsigned long above = 0, below = 0;

  progress =
      mmap(NULL, sizeof(*progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  REQUIRE(progress != MAP_FAILED);
  fflush(stdout);
  for (int i = 0; i < kWorkers; i++) REQUIRE((workers[i] = start_worker(i)) > 0);
  /* What was removed below is still known above, and keeps its inode, of which there are few. */
  for (int second = 0; second < seconds; second++) {
    sleep(1);
    write_text("/proc/sys/vm/drop_caches", "2");
  }
  progress->stop = 1;
  EXPECT(all_ended(workers));
  for (int i = 0; i < kWorkers; i++) *(i < kAbove ? &above : &below) += progress->changes[i];
  printf("  %lu changes on the mount, %lu below\n", above, below);
  EXPECT(above > 0 && below > 0);
}

/* ---- the image, for a look at it outside ---- */

static int is_zero(const unsigned char *data, ssize_t size) {
  while (size > 0 && !data[size - 1]) size--;
  return size == 0;
}

/* The line's registers. Its driver in the kernel loses an interrupt now and then, and waits for
 * ever, so it has no part in this. */
enum { kData = 0x2f8, kStatus = kData + 5, kReady = 0x20, kRegisters = 8 };

static void send_text(const char *text) {
  for (; *text; text++) {
    while (!(inb(kStatus) & kReady)) {
    }
    outb((unsigned char)*text, kData);
  }
}

static void send_image(int image) {
  unsigned char data[kChunk];
  char text[2 * kChunk + 64];
  off_t at = 0;
  ssize_t got;

  REQUIRE(ioperm(kData, kRegisters, 1) == 0 && lseek(image, 0, SEEK_SET) == 0);
  for (; (got = read(image, data, sizeof(data))) > 0; at += got) {
    if (is_zero(data, got)) continue;
    int length = sprintf(text, "image %s %lld ", kind, (long long)at);
    for (ssize_t i = 0; i < got; i++) length += sprintf(text + length, "%02x", data[i]);
    strcpy(text + length, "\n");
    send_text(text);
  }
  REQUIRE(got == 0);
  sprintf(text, "image %s %lld\n", kind, (long long)at);
  send_text(text);
}

static void run_race(void) {
  char image[64];
  int copy;

  alarm((unsigned)seconds + 2 * kGraceSeconds + 600);
  snprintf(image, sizeof(image), "/race_%s.img", kind);
  REQUIRE(mount_image(image, kind, NULL, "/lower") == 0);
  REQUIRE((copy = open_image_copy()) >= 0);
  REQUIRE(chmod("/lower", 0777) == 0);
  REQUIRE(mount("/lower", "/mnt", "tarn", 0, NULL) == 0);
  race();
  EXPECT_EQ(umount("/mnt"), 0);
  REQUIRE(unmount_image("/lower") == 0);
  send_image(copy);
}

int main(int argc, char **argv) {
  struct guest_case cases[] = {
      {"on_ext2", GUEST_LOADED, run_race},
      {NULL, GUEST_BARE, NULL},
  };

  kind = argc > 1 ? argv[1] : "ext2";
  seconds = argc > 2 ? atoi(argv[2]) : 60;
  if (strcmp(kind, "ext3") == 0) cases[0].name = "on_ext3";
  alarm(0); /* the case has a limit of its own, for the time that it was given */
  return guest_main("racer", cases);
}
