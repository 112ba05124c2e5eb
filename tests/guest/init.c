/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The guest's first process. It mounts what the programs need, runs the lines of /steps one after
 * another with a time limit for each, and switches the machine off. A line is a program and its
 * arguments, separated by single blanks. Results go to the kernel's log, a message for each line.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "proof.h"

enum { kSecondsPerStep = 3000, kMaxArguments = 16 };

static void need(int result, const char *what) {
  if (result >= 0) return;
  printf("FAILED init: %s: %s\n", what, strerror(errno));
  fflush(stdout);
}

/*
 * Copies lines to the kernel's log until the one that says "done". A line is one message, so that
 * the kernel's own do not fall into it.
 */
static void log_lines(int from) {
  FILE *lines = fdopen(from, "re");
  const int log = open("/dev/kmsg", O_WRONLY | O_CLOEXEC);
  char line[960], message[1024];

  while (lines && fgets(line, sizeof(line), lines)) {
    line[strcspn(line, "\n")] = 0;
    const int length = snprintf(message, sizeof(message), "@guest %s\n", line);
    if (write(log, message, (size_t)length) != length) return; /* and what waits for it, fails */
    if (strcmp(line, "done") == 0) return;
  }
}

/* Output goes to the log from here on. The logger's process. */
static pid_t start_logger(void) {
  int ends[2];
  pid_t pid;

  if (pipe(ends)) return -1;
  pid = fork();
  if (pid == 0) {
    close(ends[1]);
    log_lines(ends[0]);
    _exit(0);
  }
  close(ends[0]);
  dup2(ends[1], 1);
  dup2(ends[1], 2);
  close(ends[1]);
  return pid;
}

static void mount_all(void) {
  need(mount("proc", "/proc", "proc", 0, NULL), "mounting /proc");
  need(mount("sysfs", "/sys", "sysfs", 0, NULL), "mounting /sys");
  need(mount("tmp", "/tmp", "tmpfs", 0, NULL), "mounting /tmp");
}

/* Says behind each step whether the kernel has still proved its locking, for proof.py. */
static void say_proof(const char *step) {
  struct proof proof;

  if (!read_proof(&proof)) return;
  printf("proof %s %s%s\n", step, proof.on ? "on" : "off", proof.tables);
  fflush(stdout);
}

/* Orphans end here as well. */
static void wait_for(pid_t wanted, int *status) {
  for (pid_t pid = 0; pid != wanted && (pid >= 0 || errno == EINTR);) pid = waitpid(-1, status, 0);
}

static void run_step(char *line) {
  char *argv[kMaxArguments + 1];
  int argc = 0, status = 0;
  pid_t pid;

  for (char *word = strtok(line, " "); word && argc < kMaxArguments; word = strtok(NULL, " "))
    argv[argc++] = word;
  argv[argc] = NULL;
  if (!argc) return;
  pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    alarm(kSecondsPerStep);
    execv(argv[0], argv);
    printf("FAILED %s: %s\n", argv[0], strerror(errno));
    fflush(stdout);
    _exit(127);
  }
  wait_for(pid, &status);
  if (WIFSIGNALED(status)) printf("FAILED %s: ended by signal %d\n", argv[0], WTERMSIG(status));
  if (WIFEXITED(status) && WEXITSTATUS(status))
    printf("failed step %s %d\n", argv[0], WEXITSTATUS(status));
  fflush(stdout);
}

int main(void) {
  char line[512], step[512];
  FILE *steps;
  int status;
  const pid_t logger = start_logger();

  mount_all();
  signal(SIGPIPE, SIG_IGN);
  setenv("PATH", "/", 1);
  steps = fopen("/steps", "re");
  need(steps ? 0 : -1, "opening /steps");
  while (steps && fgets(line, sizeof(line), steps)) {
    line[strcspn(line, "\n")] = 0;
    snprintf(step, sizeof(step), "%s", line + strspn(line, "/"));
    for (char *at = step; *at; at++) *at = *at == ' ' ? '/' : *at;
    run_step(line);
    say_proof(step);
  }
  printf("done\n");
  fflush(stdout);
  wait_for(logger, &status);
  sync();
  reboot(RB_POWER_OFF);
  for (;;) pause();
}
