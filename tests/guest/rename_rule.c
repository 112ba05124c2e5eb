/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Only the daemon's program moves what lies in a replicated directory. This program is the daemon's
 * as well: called as rename_rule FROM TO it renames and exits with the error number.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "channel.h"
#include "guest.h"

#define DAEMON "/tmp/sbin/mirrord"

/* Makes a copy of this program. */
static void install(const char *path) {
  static char image[1 << 20];
  const long size = read_text("/rename_rule", image, sizeof(image));

  REQUIRE(size > 0 && put_file(path, image, (size_t)size) == 0 && chmod(path, 0755) == 0);
}

/* The error number of the rename that the program at `path` makes. */
static int rename_by(const char *path, const char *from, const char *to) {
  const pid_t pid = fork();
  int status = 0;

  if (pid == 0) {
    execl(path, path, from, to, (char *)NULL);
    _exit(127);
  }
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

static void prepare(void) {
  mkdir("/tmp/sbin", 0755);
  REQUIRE(mkdir("/mnt/rep", 0755) == 0);
  REQUIRE(put_file("/mnt/rep/f", "x", 1) == 0);
  REQUIRE(put_file("/mnt/out", "y", 1) == 0);
  REQUIRE(add_directory(1, "/lower/rep") == 0);
  REQUIRE(set_option(OX_SO_SET_DAEMON, DAEMON, sizeof(DAEMON)) == (int)sizeof(DAEMON));
}

static void other_programs_are_refused(void) {
  prepare();
  EXPECT_EQ(rename("/mnt/rep/f", "/mnt/g"), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(rename("/mnt/rep/f", "/mnt/rep/g"), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(access("/lower/rep/f", F_OK), 0);
  EXPECT_EQ(rename("/mnt/out", "/mnt/rep/in"), 0);
}

static void the_daemons_program_may(void) {
  prepare();
  install(DAEMON);
  EXPECT_EQ(rename_by(DAEMON, "/mnt/rep/f", "/mnt/g"), 0);
  EXPECT_EQ(access("/lower/g", F_OK), 0);
}

static void programs_of_like_names_may_not(void) {
  prepare();
  install(DAEMON "2");
  EXPECT_EQ(rename_by(DAEMON "2", "/mnt/rep/f", "/mnt/g"), EACCES);
  install("/tmp/sbin/mirror");
  EXPECT_EQ(rename_by("/tmp/sbin/mirror", "/mnt/rep/f", "/mnt/g"), EACCES);
  unlink(DAEMON);
  EXPECT_EQ(symlink("/tmp/sbin/mirror", DAEMON), 0);
  EXPECT_EQ(rename_by(DAEMON, "/mnt/rep/f", "/mnt/g"), EACCES);
  EXPECT_EQ(unlink(DAEMON), 0);
}

static void without_directories_everybody_may(void) {
  prepare();
  EXPECT_EQ(set_option(OX_SO_DIR_FLUSH, NULL, 0), 0);
  EXPECT_EQ(rename("/mnt/rep/f", "/mnt/g"), 0);
}

int main(int argc, char **argv) {
  static const struct guest_case cases[] = {
      {"other_programs_are_refused", GUEST_MOUNTED, other_programs_are_refused},
      {"the_daemons_program_may", GUEST_MOUNTED, the_daemons_program_may},
      {"programs_of_like_names_may_not", GUEST_MOUNTED, programs_of_like_names_may_not},
      {"without_directories_everybody_may", GUEST_MOUNTED, without_directories_everybody_may},
      {NULL, GUEST_BARE, NULL},
  };

  if (argc == 3) return rename(argv[1], argv[2]) ? errno : 0;
  return guest_main("rename_rule", cases);
}
