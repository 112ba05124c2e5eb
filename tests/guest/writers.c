/* SPDX-License-Identifier: GPL-2.0 */
/* Many at once: writers of one file and of many, names that come and go, and a daemon that loses
 * nothing. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "guest.h"
#include "record.h"

enum { kWriters = 6, kWrites = 100, kLine = 32, kWait = 20000 };

static int self; /* number of a writer's process */

static void start_writers(int (*work)(void)) {
  fflush(stdout);
  for (self = 0; self < kWriters; self++) {
    const pid_t pid = fork();
    if (pid == 0) _exit(work());
    REQUIRE(pid > 0);
  }
}

static void expect_writers_done(void) {
  for (int i = 0; i < kWriters; i++) {
    int status = -1;
    EXPECT(wait(&status) > 0);
    EXPECT_EQ(status, 0);
  }
}

static void make_line(char *line, int writer, int number) {
  snprintf(line, kLine + 1, "%-*.*s", kLine, kLine, "");
  const int length = snprintf(line, kLine, "writer %d line %d", writer, number);
  line[length] = ' ';
  line[kLine - 1] = '\n';
}

static int append_lines(void) {
  const int fd = open("/mnt/log", O_CREAT | O_WRONLY | O_APPEND, 0644);
  char line[kLine + 1];

  if (fd < 0) return 1;
  for (int i = 0; i < kWrites; i++) {
    make_line(line, self, i);
    if (write(fd, line, kLine) != kLine) return 2;
  }
  return close(fd) ? 3 : 0;
}

/* Each line is there once, and those of one writer in its order. */
static void expect_all_lines(const char *text) {
  int next[kWriters] = {0};

  for (int at = 0; at < kWriters * kWrites; at++) {
    char line[kLine + 1];
    int writer = -1, number = -1;
    EXPECT_EQ(sscanf(text + at * kLine, "writer %d line %d", &writer, &number), 2);
    REQUIRE(writer >= 0 && writer < kWriters);
    EXPECT_EQ(number, next[writer]);
    next[writer] = number + 1;
    make_line(line, writer, number);
    EXPECT(memcmp(line, text + at * kLine, kLine) == 0);
  }
}

static void appended_lines_stay_whole(void) {
  static char text[kWriters * kWrites * kLine + 1];

  start_writers(append_lines);
  expect_writers_done();
  EXPECT_EQ(read_text("/mnt/log", text, sizeof(text)), (long)sizeof(text) - 1);
  expect_all_lines(text);
  EXPECT(file_holds("/lower/log", text, sizeof(text) - 1));
}

static int churn_names(void) {
  char own[64], shared[64], moved[64];

  for (int i = 0; i < kWrites; i++) {
    snprintf(own, sizeof(own), "/mnt/own%d.%d", self, i);
    snprintf(shared, sizeof(shared), "/mnt/shared%d", i % 5);
    snprintf(moved, sizeof(moved), "/mnt/moved%d", (i + self) % 5);
    if (put_file(own, own, strlen(own))) return 1;
    if (rename(own, shared)) return 2;
    if (rename(shared, moved) && errno != ENOENT) return 3;
    if (link(moved, own) && errno != ENOENT && errno != EEXIST) return 4;
    if (unlink(own) && errno != ENOENT) return 5;
    mkdir("/mnt/dir", 0755);
    if (rmdir("/mnt/dir") && errno != ENOENT) return 6;
  }
  return 0;
}

static void names_come_and_go(void) {
  start_writers(churn_names);
  expect_writers_done();
}

/* Reads records until there were none for a while; each number must be the next. */
static unsigned read_all(int channel) {
  static struct record record;
  unsigned number = 0;
  int got;

  while ((got = record_receive(channel, &record, number ? 3000 : kWait)) == 1) {
    if (record.wseq == number + 1) {
      number++;
      continue;
    }
    EXPECT_EQ(record.wseq, number + 1);
    guest_end();
  }
  EXPECT_EQ(got, 0);
  return number;
}

static void a_daemon_that_reads_gets_every_record(void) {
  const int channel = channel_open();

  REQUIRE(channel >= 0 && add_rule(1, "/lower") == 0);
  REQUIRE(channel_send(channel, OX_NL_HELO, NULL, 0) == 0);
  start_writers(append_lines);
  EXPECT(read_all(channel) >= kWriters * kWrites);
  expect_writers_done();
}

int main(void) {
  static const struct guest_case cases[] = {
      {"appended_lines_stay_whole", GUEST_MOUNTED, appended_lines_stay_whole},
      {"names_come_and_go", GUEST_MOUNTED, names_come_and_go},
      {"a_daemon_that_reads_gets_every_record", GUEST_MOUNTED,
       a_daemon_that_reads_gets_every_record},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("writers", cases);
}
