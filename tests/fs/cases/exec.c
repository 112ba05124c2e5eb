// SPDX-License-Identifier: GPL-2.0
// Running programs from the directory: by name, script, link and descriptor, without the right.
#include "case.h"

static void run(const char *path) {
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    execl(path, path, "answer", (char *)NULL);
    say("%s cannot be run: %s", path, errno_name(errno));
    _exit(100);
  }
  say_end(path, pid);
}

static void as_user(void) {
  become(kUser, kUser, 0);
  run("./program");
  run("./of-root");
  run("./unreadable");
}

static void run_case(void) {
  // Started from a copy: answer, with what the program has become.
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length > 0) {
    self[length] = 0;
    const char *name = strrchr(self, '/') + 1;
    if (strcmp(name, "exec") != 0) {
      say("running as %s, effective user %u group %u", name, geteuid(), getegid());
      fflush(stdout);
      _exit(42);
    }
  }
  copy_self("program");
  run("./program");
  SETUP(chmod("program", 0644));
  run("./program");
  SETUP(chmod("program", 0755));
  SETUP(symlink("program", "link"));
  run("./link");
  put("script", "#!./program\n");
  SETUP(chmod("script", 0755));
  run("./script");
  put("nothing", "no program at all");
  SETUP(chmod("nothing", 0755));
  run("./nothing");
  put("empty", "");
  SETUP(chmod("empty", 0755));
  run("./empty");
  SETUP(mkdir("d", 0755));
  run("./d");
  run("./missing");
  // Replaced while nobody runs it, and run at once.
  SETUP(rename("program", "old"));
  copy_self("program");
  run("./program");
  OP(unlink("old"));
  if (geteuid() == 0) {
    copy_self("of-root");
    SETUP(chmod("of-root", 0700));
    copy_self("unreadable");
    SETUP(chmod("unreadable", 0711));
    in_child(as_user);
    // Set-user-id works where the file system is not mounted without it.
    SETUP(chown("program", kOtherUser, kGroup));
    SETUP(chmod("program", 06755));
    in_child(as_user);
  }
  unlink("program");
  unlink("of-root");
  unlink("unreadable");
}
