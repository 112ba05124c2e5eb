// SPDX-License-Identifier: GPL-2.0
// Several processes at once: exclusive creation, renames over one name, directories made and
// removed.
#include "case.h"

enum { kProcesses = 4, kRounds = 100 };

// Each counts what it won; together they must have won each once.
static void create_all(int pipe_end) {
  char name[32];
  unsigned char won = 0;
  for (int i = 0; i < kRounds; i++) {
    snprintf(name, sizeof(name), "once%d", i);
    const int fd = open(name, O_CREAT | O_EXCL | O_WRONLY, 0644);
    if (fd >= 0) won++;
    close(fd);
  }
  _exit(write(pipe_end, &won, 1) != 1);
}

static void remove_all(int pipe_end) {
  char name[32];
  unsigned char won = 0;
  for (int i = 0; i < kRounds; i++) {
    snprintf(name, sizeof(name), "once%d", i);
    if (unlink(name) == 0) won++;
  }
  _exit(write(pipe_end, &won, 1) != 1);
}

// Who has made it can remove it; who has not is told that it is there.
static void make_directories(int pipe_end) {
  const unsigned char done = 1;
  for (int i = 0; i < kRounds; i++) {
    if (mkdir("d", 0755) == 0) {
      if (rmdir("d") < 0) _exit(1);
    } else if (errno != EEXIST) {
      _exit(2);
    }
  }
  _exit(write(pipe_end, &done, 1) != 1);
}

static void replace(int pipe_end) {
  char mine[32], text[32];
  unsigned char done = 0;
  snprintf(mine, sizeof(mine), "mine%d", (int)getpid());
  for (int i = 0; i < kRounds; i++) {
    put(mine, "0123456789");
    if (rename(mine, "shared") == 0) done++;
    const int fd = open("shared", O_RDONLY);
    if (fd < 0 || read(fd, text, sizeof(text)) != 10) _exit(1);
    close(fd);
  }
  _exit(write(pipe_end, &done, 1) != 1);
}

static void together(const char *what, void (*work)(int)) {
  int pipes[2], total = 0;
  unsigned char won;
  SETUP(pipe(pipes));
  pid_t pids[kProcesses];
  fflush(stdout);
  for (int i = 0; i < kProcesses; i++)
    if ((pids[i] = fork()) == 0) work(pipes[1]);
  for (int i = 0; i < kProcesses; i++) say_end(what, pids[i]);
  close(pipes[1]);
  while (read(pipes[0], &won, 1) == 1) total += won;
  close(pipes[0]);
  say("%s: %d", what, total);
}

static void run_case(void) {
  together("create", create_all);
  together("remove", remove_all);
  together("replace", replace);
  together("make directories", make_directories);
  say_stat("d");
  say_file("shared");
}
