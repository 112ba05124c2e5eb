/* SPDX-License-Identifier: GPL-2.0 */
/* The tool and the daemon with the module in the kernel: mounts, rules and the log, a tree that is
 * replicated, and what happens when the daemon is killed, slow, or not alone. */
#define _GNU_SOURCE
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "guest.h"
#include "image.h"
#include "replicate_run.h"

enum { kUnit = 29, kWriters = 4, kFiles = 40 };

static const char kUuid[] = "01234567-89AB-CDEF-0123-456789ABCDEF";
static const char kState[] = "/tmp/state", kOtherState[] = "/tmp/other.state";
static const char kDaemonOutput[] = "/tmp/mirrord.output";

/* Runs a case over an ext3 at /lower with tarn at /mnt. What it leaves running goes with it. */
static void on_mount(int (*work)(void)) {
  REQUIRE(mount_image("/ext3.img", "ext3", "", "/lower") == 0);
  REQUIRE(rmdir("/lower/lost+found") == 0);
  EXPECT_EQ(RUN("/tarn", "mount", "/lower", "/mnt"), 0);
  EXPECT_EQ(in_process(work), 0);
  EXPECT_EQ(RUN("/tarn", "umount", "/mnt"), 0);
  EXPECT_EQ(unmount_image("/lower"), 0);
}

#define ON_MOUNT(name)            \
  static void name##_case(void) { \
    on_mount(name);               \
  }                               \
  static_assert(1, "needs a semicolon")

/* ---- the daemon ---- */

/* A folder of the running case. */
static const char *replica(void) {
  static char path[64];

  snprintf(path, sizeof(path), "/tmp/replica.%d", (int)getpid());
  return path;
}

static void start_daemon(struct program *daemon, const char *state, const char *option) {
  const char *const arguments[] = {"/mirrord",  "--source", "/lower",
                                   "--replica", replica(),  "--state-directory",
                                   state,       option,     NULL};

  start_program(daemon, kDaemonOutput, arguments);
  REQUIRE(comes_to_say(kDaemonOutput, "mirrord: registered"));
}

/* An empty replica, and a daemon that is registered. The daemon
 * keeps others out of the replica's root; so does the lower directory here, for the trees are
 * compared. */
static void start_replication(struct program *daemon) {
  REQUIRE(mkdir(replica(), 0755) == 0);
  REQUIRE(chmod("/lower", 0700) == 0);
  start_daemon(daemon, kState, NULL);
}

static int catch_up(void) {
  return RUN("/mirrord", "wait", "--state-directory", kState, "--timeout", "120");
}

static int stop(struct program *program) {
  kill(program->pid, SIGTERM);
  return end_of_program(program);
}

static int replica_holds(const char *name) {
  char path[128];

  snprintf(path, sizeof(path), "%s/%s", replica(), name);
  return access(path, F_OK) == 0;
}

static int comes_to_hold(const char *name) {
  for (int i = 0; i < 3000; i++) {
    if (replica_holds(name)) return 1;
    usleep(20000);
  }
  printf("  %s is not in the replica\n", name);
  return 0;
}

/* ---- the tool ---- */

static void no_module(void) {
  struct stat before, after;

  EXPECT_EQ(RUN("/tarn", "status"), 3);
  EXPECT(says(kOutput, "no tarnd runs in /run/tarn"));
  EXPECT_EQ(RUN("/tarn", "mount", "/lower", "/mnt"), 4);
  EXPECT(says(kOutput, "load the module into the kernel"));
  REQUIRE(stat("/tmp", &before) == 0);
  EXPECT_EQ(
      RUN("/mirrord", "--source", "/lower", "--replica", "/tmp", "--state-directory", "/state"), 3);
  REQUIRE(stat("/tmp", &after) == 0);
  EXPECT_EQ(after.st_mode, before.st_mode);
}

static int status(void) {
  EXPECT_EQ(RUN("/tarn", "status"), 0);
  EXPECT(says(kOutput, "module: in the running kernel\n"));
  EXPECT(says(kOutput, "mount: /lower at /mnt\n"));
  EXPECT(says(kOutput, "rule: none"));
  EXPECT(says(kOutput, "daemon: none"));
  EXPECT_EQ(RUN("/tarn", "status", "--json"), 0);
  EXPECT(says(kOutput, "\"module\": \"kernel\""));
  EXPECT_EQ(RUN("/tarn", "stop"), 1);
  EXPECT(says(kOutput, "rmmod tarn"));
  guest_end();
}
ON_MOUNT(status);

static void mounts(void) {
  REQUIRE(mount_image("/ext3.img", "ext3", "", "/lower") == 0);
  EXPECT_EQ(RUN("/tarn", "mount", "/absent", "/mnt"), 1);
  EXPECT_EQ(RUN("/tarn", "mount", "/lower", "/mnt"), 0);
  EXPECT_EQ(RUN("/tarn", "mount", "/lower", "/mnt"), 1);
  EXPECT(says(kOutput, "/mnt is mounted already"));
  EXPECT_EQ(put_file("/mnt/file", "text", 4), 0);
  EXPECT(file_holds("/lower/file", "text", 4));
  EXPECT_EQ(chdir("/mnt"), 0);
  EXPECT_EQ(RUN("/tarn", "umount", "/mnt"), 1);
  EXPECT(says(kOutput, "--lazy"));
  EXPECT_EQ(chdir("/"), 0);
  EXPECT_EQ(RUN("/tarn", "umount", "/mnt"), 0);
  EXPECT_EQ(RUN("/tarn", "umount", "/mnt"), 1);
  EXPECT(says(kOutput, "/mnt is not a mount of tarn"));
  EXPECT_EQ(unmount_image("/lower"), 0);
}

static void rules(void) {
  EXPECT_EQ(RUN("/tarn", "rule", "list"), 0);
  EXPECT(!says(kOutput, "+"));
  EXPECT_EQ(RUN("/tarn", "rule", "add", kUuid, "--include", "/lower", "--exclude", "/lower/x"), 0);
  EXPECT_EQ(RUN("/tarn", "rule", "add", kUuid, "--include", "/lower"), 1);
  EXPECT(says(kOutput, "exists already"));
  EXPECT_EQ(RUN("/tarn", "rule", "add", "--include", "/somewhere/else"), 0);
  EXPECT_EQ(RUN("/tarn", "rule", "list"), 0);
  EXPECT(says(kOutput, "01234567-89AB-CDEF-0123-456789ABCDEF +/lower -/lower/x\n"));
  EXPECT(says(kOutput, " +/somewhere/else\n"));
  EXPECT_EQ(RUN("/tarn", "rule", "show", kUuid), 0);
  EXPECT(says(kOutput, "  exclude /lower/x\n"));
  EXPECT_EQ(RUN("/tarn", "rule", "del", kUuid), 0);
  EXPECT_EQ(RUN("/tarn", "rule", "del", kUuid), 1);
  EXPECT(says(kOutput, "does not exist"));
  EXPECT_EQ(RUN("/tarn", "rule", "flush"), 0);
  EXPECT_EQ(RUN("/tarn", "rule", "list"), 0);
  EXPECT(!says(kOutput, "+"));
}

static int log_lines(void) {
  const char *const follow[] = {"/tarn", "log", "--follow", NULL};
  struct program log, daemon;

  EXPECT_EQ(RUN("/tarn", "log"), 0);
  EXPECT(says(kOutput, "Register tarn filesystem success\n"));
  EXPECT_EQ(RUN("/tarn", "log", "--level", "0"), 0);
  EXPECT(!says(kOutput, "Register tarn filesystem success"));
  start_program(&log, "/tmp/log.output", follow);
  EXPECT(comes_to_say("/tmp/log.output", "Register tarn filesystem success"));
  start_replication(&daemon);
  EXPECT(comes_to_say("/tmp/log.output", "tarn_process_nl_helo: daemon_pid = "));
  EXPECT_EQ(stop(&daemon), 0);
  EXPECT(comes_to_say("/tmp/log.output", "tarn_process_nl_quit: daemon_pid = 0"));
  EXPECT_EQ(stop(&log), 128 + SIGTERM);
  guest_end();
}
ON_MOUNT(log_lines);

static int watch(void) {
  const char *const arguments[] = {"/tarn", "watch", NULL};
  struct program program;
  char hello[64];

  REQUIRE(RUN("/tarn", "rule", "add", kUuid, "--include", "/lower") == 0);
  start_program(&program, "/tmp/watch.output", arguments);
  snprintf(hello, sizeof(hello), "tarn_process_nl_helo: daemon_pid = %d\n", (int)program.pid);
  while (!(RUN("/tarn", "log") == 0 && says(kOutput, hello))) usleep(20000);
  EXPECT_EQ(RUN("/tarn", "status"), 0);
  EXPECT(says(kOutput, "daemon: process"));
  EXPECT_EQ(put_file("/mnt/file", "text", 4), 0);
  EXPECT(comes_to_say("/tmp/watch.output", "create /lower/file mode 0644\n"));
  EXPECT(comes_to_say("/tmp/watch.output", "write /lower/file offset 0 bytes 4\n"));
  EXPECT_EQ(stop(&program), 0);
  guest_end();
}
ON_MOUNT(watch);

/* ---- replication ---- */

static int tree(void) {
  struct program daemon;
  struct stat one, other;
  char path[128];

  start_replication(&daemon);
  make_changes("/mnt");
  EXPECT_EQ(catch_up(), 0);
  EXPECT_EQ(tree_differences("/lower", replica()), 0);
  snprintf(path, sizeof(path), "%s/small", replica());
  REQUIRE(stat("/lower/small", &one) == 0 && stat(path, &other) == 0);
  EXPECT_EQ(one.st_mtim.tv_sec, 1100000000);
  EXPECT_EQ(other.st_mtim.tv_sec, one.st_mtim.tv_sec);
  EXPECT_EQ(other.st_mtim.tv_nsec, one.st_mtim.tv_nsec);
  EXPECT(unload_module("tarn") != 0);
  EXPECT_EQ(stop(&daemon), 0);
  EXPECT_EQ(says(kDaemonOutput, "GAP"), 1);  // there was no rule before
  guest_end();
}
ON_MOUNT(tree);

static int write_many(int writer) {
  char path[64], data[6000];

  fill_pattern(data, sizeof(data), writer);
  for (int i = 0; i < kFiles; i++) {
    snprintf(path, sizeof(path), "/mnt/%d.%d", writer, i);
    if (put_file(path, data, 100 * (i + 1)) || put_file(path, data, sizeof(data))) return 1;
    if (i % 3 == 0 && unlink(path)) return 1;
  }
  return 0;
}

static int writers(void) {
  struct program daemon;
  int status;

  start_replication(&daemon);
  for (int writer = 0; writer < kWriters; writer++) {
    if (fork() == 0) _exit(write_many(writer));
  }
  EXPECT_EQ(catch_up(), 0);
  for (int writer = 0; writer < kWriters; writer++) {
    REQUIRE(wait(&status) > 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(catch_up(), 0);
  EXPECT_EQ(tree_differences("/lower", replica()), 0);
  EXPECT_EQ(stop(&daemon), 0);
  guest_end();
}
ON_MOUNT(writers);

static int killed(void) {
  struct program daemon;

  start_replication(&daemon);
  EXPECT_EQ(put_file("/mnt/one", "1", 1), 0);
  EXPECT_EQ(catch_up(), 0);
  kill(daemon.pid, SIGKILL);
  EXPECT_EQ(end_of_program(&daemon), 128 + SIGKILL);
  EXPECT_EQ(put_file("/mnt/two", "2", 1), 0);
  EXPECT(file_holds("/lower/two", "2", 1));
  EXPECT_EQ(RUN("/tarn", "log"), 0);
  EXPECT(says(kOutput, "ret = -111, process not existed, back to 0"));
  EXPECT_EQ(RUN("/tarn", "status"), 0);
  EXPECT(says(kOutput, "daemon: none"));
  start_daemon(&daemon, kState, NULL);
  EXPECT_EQ(put_file("/mnt/three", "3", 1), 0);
  EXPECT(comes_to_hold("three"));
  EXPECT(comes_to_say(kDaemonOutput, "GAP"));
  EXPECT_EQ(catch_up(), 0);
  EXPECT(replica_holds("two"));
  EXPECT_EQ(stop(&daemon), 0);
  guest_end();
}
ON_MOUNT(killed);

enum { kSlowSize = 4 << 20, kSlowWrites = 8 };

static void ignore(int signal) {
  (void)signal;
}

static int write_large_files(void) {
  struct sigaction action = {.sa_handler = ignore};
  char *data = calloc(1, kSlowSize);

  sigaction(SIGTERM, &action, NULL);
  for (int i = 0; i < kSlowWrites; i++) {
    if (put_file("/mnt/large", data, kSlowSize)) return 1;
  }
  return 0;
}

/* A sender waits for a daemon that does not read, until a signal comes that is to end it: then its
 * message is lost. */
static int slow(void) {
  struct program daemon;
  int status = 0;
  pid_t writer;

  start_replication(&daemon);
  kill(daemon.pid, SIGSTOP);
  writer = fork();
  if (writer == 0) _exit(write_large_files());
  while (!(RUN("/tarn", "log") == 0 && says(kOutput, "ret = -4, back to 0"))) {
    REQUIRE(waitpid(writer, &status, WNOHANG) == 0);
    kill(writer, SIGTERM);
    usleep(100000);
  }
  EXPECT(says(kOutput, "Send kill signal(58) to process"));
  kill(daemon.pid, SIGCONT);
  REQUIRE(waitpid(writer, &status, 0) == writer);
  EXPECT(comes_to_say(kDaemonOutput, "GAP: the module could not deliver"));
  EXPECT_EQ(put_file("/mnt/after", "a", 1), 0);
  EXPECT(comes_to_hold("after"));
  EXPECT_EQ(catch_up(), 0);
  EXPECT_EQ(tree_differences("/lower", replica()), 0);
  EXPECT_EQ(stop(&daemon), 0);
  guest_end();
}
ON_MOUNT(slow);

/* ---- others ---- */

static int two_daemons(void) {
  struct program first, second;
  const char *const arguments[] = {"/mirrord", "--source",          "/lower",    "--replica",
                                   "/other",   "--state-directory", kOtherState, NULL};

  REQUIRE(mkdir("/other", 0700) == 0);
  start_replication(&first);
  EXPECT_EQ(run(arguments), 3);
  EXPECT(says(kOutput, "is the daemon already"));
  first.output = "/tmp/first.output";
  REQUIRE(rename(kDaemonOutput, first.output) == 0);
  start_daemon(&second, kOtherState, "--take-over");
  EXPECT(comes_to_say(first.output, "another daemon has taken over"));
  stop(&first);
  EXPECT_EQ(put_file("/mnt/file", "text", 4), 0);
  EXPECT(comes_to_hold("file"));
  EXPECT_EQ(stop(&second), 0);
  guest_end();
}
ON_MOUNT(two_daemons);

static pid_t victim;

/* A creation that nobody made, sent to the daemon's port. */
static int forge(void) {
  struct {
    struct nlmsghdr header;
    char record[52];
  } packet = {{sizeof(packet), 10, 0, 1, 0}, {0}};
  struct sockaddr_nl to = {.nl_family = AF_NETLINK, .nl_pid = (unsigned)victim};
  const int fd = socket(AF_NETLINK, SOCK_RAW, kUnit);

  become_user();
  memset(packet.record, 1, 16);
  packet.record[24] = 1; /* wseq */
  packet.record[29] = 1;
  packet.record[36] = 8;
  memcpy(packet.record + 44, "/lower/", 8);
  return sendto(fd, &packet, sizeof(packet), 0, (struct sockaddr *)&to, sizeof(to)) < 0;
}

static int ask_as_user(void) {
  become_user();
  EXPECT_EQ(RUN("/tarn", "rule", "list"), 1);
  EXPECT(says(kOutput, "not permitted"));
  EXPECT_EQ(RUN("/tarn", "rule", "flush"), 1);
  EXPECT_EQ(RUN("/tarn", "mount", "/lower", "/tmp"), 1);
  EXPECT(says(kOutput, "only root may mount"));
  EXPECT_EQ(RUN("/tarn", "umount", "/mnt"), 1);
  EXPECT(says(kOutput, "only root may unmount"));
  EXPECT_EQ(RUN("/tarn", "watch", "--take-over"), 1);
  EXPECT(says(kOutput, "cannot become the daemon"));
  guest_end();
}

static int other_users(void) {
  struct program daemon;

  start_replication(&daemon);
  victim = daemon.pid;
  unlink(kOutput);
  EXPECT_EQ(in_process(ask_as_user), 0);
  unlink(kOutput);
  EXPECT_EQ(in_process(forge), 0);
  EXPECT(comes_to_say(kDaemonOutput, "a program other than the module sends messages here"));
  EXPECT_EQ(put_file("/mnt/file", "text", 4), 0);
  EXPECT_EQ(catch_up(), 0);
  EXPECT(replica_holds("file"));
  EXPECT_EQ(stop(&daemon), 0);
  guest_end();
}
ON_MOUNT(other_users);

static const struct guest_case cases[] = {
    {"without_the_module_the_tools_say_so", GUEST_BARE, no_module},
    {"status_says_where_the_module_is", GUEST_LOADED, status_case},
    {"mounts_come_and_go", GUEST_LOADED, mounts},
    {"rules_come_and_go", GUEST_LOADED, rules},
    {"log_shows_the_kernels_lines_and_follows", GUEST_LOADED, log_lines_case},
    {"watch_shows_records", GUEST_LOADED, watch_case},
    {"mirrord_replicates_a_tree", GUEST_LOADED, tree_case},
    {"what_many_writers_do_is_replicated", GUEST_LOADED, writers_case},
    {"a_killed_daemon_leaves_a_gap_that_is_declared", GUEST_LOADED, killed_case},
    {"a_daemon_that_does_not_read_declares_the_loss", GUEST_LOADED, slow_case},
    {"one_daemon_at_a_time", GUEST_LOADED, two_daemons_case},
    {"other_users_change_and_forge_nothing", GUEST_LOADED, other_users_case},
    {NULL, GUEST_BARE, NULL},
};

int main(void) {
  return guest_main("replicate", cases);
}
