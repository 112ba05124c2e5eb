/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Counts the instructions of single calls, beside the lower ext2 itself. The machine's time stamp
 * counter advances by one for each instruction (qemu's -icount), those of the kernel and of this
 * program alike; the loop here costs a few dozen for a call.
 *
 * A line "count CALL SIDE N" for each: N is the median over rounds of the mean of a batch of calls.
 * The daemon is this process: it takes its records between the batches, uncounted.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "channel.h"
#include "guest.h"

enum { kRounds = 21, kBatch = 32, kSmall = 4096, kLarge = 65536 };

static const char *dir; /* all of the same length, so that the walks are the same */
static int channel = -1;
static int file;
static char data[kLarge];

static unsigned long long instructions(void) {
  unsigned low, high;

  __asm__ volatile("rdtsc" : "=a"(low), "=d"(high)::"memory");
  return (unsigned long long)high << 32 | low;
}

/* A file of the round, which has a directory of its own: no name of another round is cached. */
static const char *name(const char *kind, int number) {
  static char text[2][128];
  static int turn;

  turn ^= 1;
  snprintf(text[turn], sizeof(text[turn]), "%s/round/%s%02d", dir, kind, number);
  return text[turn];
}

/* ---- the calls; before() and after() are not counted ---- */

struct call {
  const char *name;
  void (*before)(void);
  int (*run)(const char *first, const char *second); /* not negative */
  void (*after)(int number, int result);
};

static void make_all(void) {
  for (int i = 0; i < kBatch; i++) REQUIRE(put_file(name("a", i), data, kSmall) == 0);
}

static void remove_one(int number, int result) {
  (void)result;
  unlink(name("a", number));
  unlink(name("b", number));
}

static void close_and_remove(int number, int result) {
  close(result);
  remove_one(number, result);
}

static void keep(int number, int result) {
  (void)number;
  (void)result;
}

static void remove_file(int number, int result) {
  (void)result;
  if (number < kBatch - 1) return;
  close(file);
  unlink(name("file", 0));
}

static void open_new(void) {
  file = open(name("file", 0), O_CREAT | O_EXCL | O_RDWR, 0644);
  REQUIRE(file >= 0);
}

static void open_full(void) {
  open_new();
  for (int i = 0; i < kBatch; i++) REQUIRE(write(file, data, kLarge) == kLarge);
  REQUIRE(lseek(file, 0, SEEK_SET) == 0);
}

static void nothing(void) {}

static int run_create(const char *first, const char *second) {
  (void)second;
  return open(first, O_CREAT | O_EXCL | O_WRONLY, 0644);
}

static int run_open(const char *first, const char *second) {
  (void)second;
  return open(first, O_RDONLY);
}

static int run_chmod(const char *first, const char *second) {
  (void)second;
  return chmod(first, 0600);
}

static int run_write_small(const char *first, const char *second) {
  (void)first;
  (void)second;
  return (int)write(file, data, kSmall);
}

static int run_write_large(const char *first, const char *second) {
  (void)first;
  (void)second;
  return (int)write(file, data, kLarge);
}

static int run_read_small(const char *first, const char *second) {
  (void)first;
  (void)second;
  return (int)read(file, data, kSmall);
}

static int run_rename(const char *first, const char *second) {
  return rename(first, second);
}

static int run_unlink(const char *first, const char *second) {
  (void)second;
  return unlink(first);
}

static const struct call calls[] = {
    {"create", nothing, run_create, close_and_remove},
    {"open", make_all, run_open, close_and_remove},
    {"chmod", make_all, run_chmod, remove_one},
    {"append_4K", open_new, run_write_small, remove_file},
    {"append_64K", open_new, run_write_large, remove_file},
    {"write_4K", open_full, run_write_small, remove_file},
    {"write_64K", open_full, run_write_large, remove_file},
    {"read_4K", open_full, run_read_small, remove_file},
    {"rename", make_all, run_rename, remove_one},
    {"unlink", make_all, run_unlink, keep},
};

/* ---- counting ---- */

static void take_records(void) {
  static struct message message;

  while (channel >= 0 && channel_receive(channel, &message, 0) == 1) {
  }
}

/* All names and results are at hand before the counting begins. */
static unsigned long long count_batch(const struct call *call) {
  char round[64], first[kBatch][128], second[kBatch][128];
  int results[kBatch];
  unsigned long long begin, end;

  for (int i = 0; i < kBatch; i++) {
    strcpy(first[i], name("a", i));
    strcpy(second[i], name("b", i));
  }
  snprintf(round, sizeof(round), "%s/round", dir);
  REQUIRE(mkdir(round, 0755) == 0);
  call->before();
  take_records();
  begin = instructions();
  for (int i = 0; i < kBatch; i++) results[i] = call->run(first[i], second[i]);
  end = instructions();
  for (int i = 0; i < kBatch; i++) {
    REQUIRE(results[i] >= 0);
    call->after(i, results[i]);
  }
  REQUIRE(rmdir(round) == 0);
  take_records();
  return (end - begin) / kBatch;
}

static int ascending(const void *a, const void *b) {
  const unsigned long long x = *(const unsigned long long *)a, y = *(const unsigned long long *)b;

  return (x > y) - (x < y);
}

static void count_all(const char *side, const char *where) {
  dir = where;
  for (const struct call *call = calls; call < calls + sizeof(calls) / sizeof(calls[0]); call++) {
    unsigned long long rounds[kRounds];
    for (int i = 0; i < kRounds; i++) rounds[i] = count_batch(call);
    qsort(rounds, kRounds, sizeof(rounds[0]), ascending);
    printf("count %s %s %llu\n", call->name, side, rounds[kRounds / 2]);
    fflush(stdout);
  }
}

static void every_call(void) {
  REQUIRE(mkdir("/lower/ext", 0755) == 0);
  REQUIRE(mkdir("/mnt/above", 0755) == 0);
  count_all("ext2", "/lower/ext");
  count_all("no_rule", "/mnt/above");
  REQUIRE(add_rule(1, "/lower/above") == 0);
  count_all("no_daemon", "/mnt/above");
  channel = channel_open();
  REQUIRE(channel >= 0);
  REQUIRE(channel_send(channel, OX_NL_HELO, NULL, 0) == 0);
  count_all("daemon", "/mnt/above");
}

int main(void) {
  static const struct guest_case cases[] = {
      {"every_call", GUEST_MOUNTED, every_call},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("instructions", cases);
}
