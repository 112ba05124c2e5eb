/* SPDX-License-Identifier: GPL-2.0 */
/* A daemon on the real netlink socket: it registers, reads, and looks at every field of every
 * record. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "guest.h"
#include "record.h"

enum { kWait = 5000, kNone = 200 };

static struct record record;
static unsigned last_number;
static unsigned long long started;

static unsigned long long now_us(void) {
  struct timeval now;

  gettimeofday(&now, NULL);
  return (unsigned long long)now.tv_sec * 1000000 + (unsigned long long)now.tv_usec;
}

/* A registered daemon with one rule for all of the mount. */
static int register_daemon(void) {
  const int channel = channel_open();

  REQUIRE(channel >= 0);
  REQUIRE(add_rule(1, "/lower") == 0);
  REQUIRE(channel_send(channel, OX_NL_HELO, NULL, 0) == 0);
  started = now_us();
  last_number = 0;
  return channel;
}

static void expect_next(int channel, int op) {
  const int got = record_receive(channel, &record, kWait);

  EXPECT_EQ(got, 1);
  REQUIRE(got == 1);
  EXPECT_EQ(record.op, op);
  EXPECT_EQ(record.id, 1);
  EXPECT_EQ(record.wseq, last_number + 1);
  EXPECT(record.ts + 1000000 >= started && record.ts <= now_us());
  last_number = record.wseq;
}

static void expect_name(int channel, int op, const char *path, const char *second, unsigned mode) {
  expect_next(channel, op);
  EXPECT(strcmp(record.path, path) == 0);
  EXPECT(strcmp(record.second, second) == 0);
  EXPECT_EQ(record.mode, mode);
}

static void expect_attributes(int channel, const char *path, unsigned valid) {
  expect_next(channel, OX_OP_SETATTR);
  EXPECT(strcmp(record.path, path) == 0);
  EXPECT_EQ((unsigned)record.attr.ia_valid & valid, valid);
}

static void expect_write(int channel, const char *path, unsigned long long offset, const void *data,
                         size_t size) {
  expect_next(channel, OX_OP_WRITE);
  EXPECT(strcmp(record.path, path) == 0);
  EXPECT_EQ(record.offset, offset);
  EXPECT_EQ(record.size, size);
  EXPECT(record.size == size && memcmp(record.data, data, size) == 0);
}

static void expect_nothing(int channel) {
  EXPECT_EQ(record_receive(channel, &record, kNone), 0);
}

static void make_everything(void) {
  const int fd = open("/mnt/f", O_CREAT | O_RDWR, 0640);

  REQUIRE(fd >= 0);
  EXPECT_EQ(write(fd, "hello", 5), 5);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(mkdir("/mnt/d", 0750), 0);
  EXPECT_EQ(chmod("/mnt/f", 0600), 0);
  EXPECT_EQ(symlink("nowhere", "/mnt/s"), 0);
  EXPECT_EQ(link("/mnt/f", "/mnt/d/l"), 0);
  EXPECT_EQ(rename("/mnt/f", "/mnt/d/g"), 0);
  EXPECT_EQ(unlink("/mnt/d/l"), 0);
  EXPECT_EQ(truncate("/mnt/d/g", 2), 0);
  EXPECT_EQ(rmdir("/mnt/d"), -1);
  EXPECT_EQ(unlink("/mnt/d/g"), 0);
  EXPECT_EQ(rmdir("/mnt/d"), 0);
}

static void every_kind_of_change(void) {
  const int channel = register_daemon();

  umask(022);
  make_everything();
  expect_name(channel, OX_OP_CREATE, "/lower/f", "", S_IFREG | 0640);
  expect_attributes(channel, "/lower/f", OX_ATTR_MODE | OX_ATTR_UID | OX_ATTR_GID);
  EXPECT_EQ(record.attr.ia_mode, S_IFREG | 0640);
  expect_write(channel, "/lower/f", 0, "hello", 5);
  expect_name(channel, OX_OP_MKDIR, "/lower/d", "", 0750);
  expect_attributes(channel, "/lower/d", OX_ATTR_MODE);
  expect_attributes(channel, "/lower/f", OX_ATTR_MODE);
  EXPECT_EQ(record.attr.ia_mode & 07777, 0600);
  expect_next(channel, OX_OP_SYMLINK);
  EXPECT(strcmp(record.path, "/lower/s") == 0 && strcmp(record.second, "nowhere") == 0);
  expect_next(channel, OX_OP_LINK);
  EXPECT(strcmp(record.path, "/lower/f") == 0 && strcmp(record.second, "/lower/d/l") == 0);
  expect_name(channel, OX_OP_RENAME, "/lower/f", "/lower/d/g", S_IFREG | 0600);
  expect_next(channel, OX_OP_UNLINK);
  EXPECT(strcmp(record.path, "/lower/d/l") == 0);
  expect_attributes(channel, "/lower/d/g", OX_ATTR_SIZE);
  EXPECT_EQ(record.attr.ia_size, 2);
  expect_next(channel, OX_OP_RMDIR); /* the one that was refused */
  expect_next(channel, OX_OP_UNLINK);
  EXPECT(strcmp(record.path, "/lower/d/g") == 0);
  expect_next(channel, OX_OP_RMDIR);
  EXPECT(strcmp(record.path, "/lower/d") == 0);
  expect_nothing(channel);
}

static void a_large_write_comes_in_pages(void) {
  static unsigned char data[300000];
  const int channel = register_daemon();
  const int fd = open("/mnt/big", O_CREAT | O_WRONLY, 0644);

  fill_pattern(data, sizeof(data), 7);
  EXPECT_EQ(pwrite(fd, data, sizeof(data), 1000), (long)sizeof(data));
  EXPECT_EQ(close(fd), 0);
  expect_next(channel, OX_OP_CREATE);
  expect_next(channel, OX_OP_SETATTR);
  expect_write(channel, "/lower/big", 1000, data, sizeof(data));
  EXPECT_EQ(record.pages, (16 + sizeof(data) + OX_PAGE_DATA - 1) / OX_PAGE_DATA);
  expect_nothing(channel);
}

static void rules_decide(void) {
  const int channel = register_daemon();
  static struct prule rule;

  EXPECT_EQ(mkdir("/mnt/in", 0755), 0);
  expect_next(channel, OX_OP_MKDIR);
  expect_next(channel, OX_OP_SETATTR);
  make_rule(&rule, 1, "/lower/in");
  EXPECT_EQ(channel_send(channel, OX_SO_REP_FLUSH, NULL, 0), 0);
  EXPECT_EQ(channel_send(channel, OX_SO_REP_ADD, &rule, sizeof(rule)), 0);
  for (int i = 0; i < 2; i++) {
    static struct message answer;
    int result = -1;
    REQUIRE(channel_receive(channel, &answer, kWait) == 1);
    EXPECT_EQ(answer.type, i ? OX_SO_REP_ADD : OX_SO_REP_FLUSH);
    EXPECT_EQ(answer.size, sizeof(result));
    memcpy(&result, answer.payload, sizeof(result));
    EXPECT_EQ(result, 0);
  }
  last_number = 0;
  EXPECT_EQ(mkdir("/mnt/out", 0755), 0);
  EXPECT_EQ(rename("/mnt/out", "/mnt/in/now"), 0);
  expect_next(channel, OX_OP_RENAME);
  expect_nothing(channel);
}

static volatile sig_atomic_t lost_signals;

static void count_signal(int signal) {
  (void)signal;
  lost_signals++;
}

static void a_daemon_that_is_gone_is_forgotten_and_signalled(void) {
  const int channel = register_daemon();

  signal(OX_SIG_LOST, count_signal);
  EXPECT_EQ(close(channel), 0);
  EXPECT_EQ(mkdir("/mnt/a", 0755), 0);
  EXPECT_EQ(lost_signals, 1);
  EXPECT_EQ(mkdir("/mnt/b", 0755), 0);
  EXPECT_EQ(lost_signals, 1);
}

static void a_daemon_that_quits_gets_nothing(void) {
  const int channel = register_daemon();

  EXPECT_EQ(channel_send(channel, OX_NL_QUIT, NULL, 0), 0);
  EXPECT_EQ(mkdir("/mnt/a", 0755), 0);
  expect_nothing(channel);
  EXPECT_EQ(channel_send(channel, OX_NL_HELO, NULL, 0), 0);
  EXPECT_EQ(rmdir("/mnt/a"), 0);
  last_number = 2; /* numbered, and sent to nobody */
  expect_next(channel, OX_OP_RMDIR);
}

static void what_is_no_message_is_dropped(void) {
  const int channel = register_daemon();

  EXPECT_EQ(channel_send_raw(channel, OX_NL_QUIT, 15, "1234", 4), 0);
  EXPECT_EQ(channel_send_raw(channel, OX_NL_QUIT, 64, "1234", 4), 0);
  EXPECT_EQ(channel_send(channel, 102, NULL, 0), 0);
  EXPECT_EQ(channel_send(channel, OX_OP_WRITE, "1234", 4), 0);
  EXPECT_EQ(mkdir("/mnt/a", 0755), 0);
  expect_next(channel, OX_OP_MKDIR);
}

static int hello_as_a_user(void) {
  int channel;

  become_user();
  channel = channel_open();
  EXPECT(channel >= 0);
  EXPECT_EQ(channel_send(channel, OX_NL_HELO, NULL, 0), 0);
  EXPECT_EQ(channel_send(channel, OX_NL_QUIT, NULL, 0), 0);
  guest_end();
}

static void a_user_cannot_register(void) {
  const int channel = register_daemon();

  EXPECT_EQ(in_process(hello_as_a_user), 0);
  EXPECT_EQ(mkdir("/mnt/a", 0755), 0);
  expect_next(channel, OX_OP_MKDIR);
}

int main(void) {
  static const struct guest_case cases[] = {
      {"every_kind_of_change", GUEST_MOUNTED, every_kind_of_change},
      {"a_large_write_comes_in_pages", GUEST_MOUNTED, a_large_write_comes_in_pages},
      {"rules_decide", GUEST_MOUNTED, rules_decide},
      {"a_daemon_that_is_gone_is_forgotten_and_signalled", GUEST_MOUNTED,
       a_daemon_that_is_gone_is_forgotten_and_signalled},
      {"a_daemon_that_quits_gets_nothing", GUEST_MOUNTED, a_daemon_that_quits_gets_nothing},
      {"what_is_no_message_is_dropped", GUEST_MOUNTED, what_is_no_message_is_dropped},
      {"a_user_cannot_register", GUEST_MOUNTED, a_user_cannot_register},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("records", cases);
}
