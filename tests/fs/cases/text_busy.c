// SPDX-License-Identifier: GPL-2.0
// Programs that run are not written, files that are written do not run.
#include "case.h"

static struct turn started, go_on;

static void run_case(void) {
  // Started as the program that is busy: waits on its standard input.
  char self[4096], x;
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length > 0) {
    self[length] = 0;
    if (strcmp(strrchr(self, '/') + 1, "text_busy") != 0) {
      SETUP(write(3, "x", 1));
      _exit(read(4, &x, 1) == 1 ? 0 : 1);
    }
  }
  copy_self("program");
  make_turn(&started);
  make_turn(&go_on);
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    const int to = dup(started.fd[1]), from = dup(go_on.fd[0]);
    dup2(to, 13);
    dup2(from, 14);
    dup2(13, 3);
    dup2(14, 4);
    execl("./program", "./program", (char *)NULL);
    _exit(100);
  }
  wait_for(&started);
  FD(open("program", O_WRONLY));
  FD(open("program", O_RDWR));
  FD(open("program", O_RDONLY | O_TRUNC));
  OP(truncate("program", 0));
  OP(close(FD(open("program", O_RDONLY))));
  OP(chmod("program", 0700));
  OP(rename("program", "moved"));
  OP(link("moved", "program"));
  OP(unlink("moved"));
  pass(&go_on);
  say_end("the program", pid);
  const int writer = FD(open("program", O_WRONLY));
  fflush(stdout);
  const pid_t second = fork();
  if (second == 0) {
    execl("./program", "./program", (char *)NULL);
    say("running what is being written: %s", errno_name(errno));
    _exit(0);
  }
  say_end("the second", second);
  OP(close(writer));
  OP(unlink("program"));
}
