// SPDX-License-Identifier: GPL-2.0
// A directory of thousands: every name once, from the start, after a seek, with a small buffer.
#include "case.h"
#include <dirent.h>
#include <sys/syscall.h>

enum { kNames = 3000 };
static unsigned char seen[kNames];

static void begin(void) {
  memset(seen, 0, sizeof(seen));
}

static void take(const char *name) {
  if (name[0] == 'n') seen[atoi(name + 1)]++;
}

static void end(const char *what) {
  int once = 0, more = 0;
  for (int i = 0; i < kNames; i++) {
    once += seen[i] == 1;
    more += seen[i] > 1;
  }
  say("%s: %d once, %d more than once", what, once, more);
}

static void run_case(void) {
  char name[300];
  SETUP(mkdir("d", 0755));
  for (int i = 0; i < kNames; i++) {
    snprintf(name, sizeof(name), "d/n%04d%.*s", i, i % 100,
             "-------------------------------------------------------------------------------------"
             "------------------");
    SETUP(close(open(name, O_CREAT | O_WRONLY, 0644)));
  }
  DIR *dir = opendir("d");
  struct dirent *entry;
  begin();
  while ((entry = readdir(dir))) take(entry->d_name);
  end("listed");
  rewinddir(dir);
  begin();
  while ((entry = readdir(dir))) take(entry->d_name);
  end("listed again");

  // Back to a place that was noted: what followed it, follows it again.
  rewinddir(dir);
  for (int i = 0; i < kNames / 2; i++) readdir(dir);
  const long place = telldir(dir);
  char next[256] = "";
  if ((entry = readdir(dir))) snprintf(next, sizeof(next), "%s", entry->d_name);
  begin();
  int rest = 1;
  while ((entry = readdir(dir))) rest++;
  seekdir(dir, place);
  entry = readdir(dir);
  say("the same name after the seek: %d", entry && strcmp(entry->d_name, next) == 0);
  int rest_again = 1;
  while ((entry = readdir(dir))) rest_again++;
  say("as many names after it: %d", rest == rest_again);
  closedir(dir);

  // A buffer of a few entries, and one that is too small for one.
  const int fd = FD(open("d", O_RDONLY));
  static char buf[512];
  long got;
  begin();
  while ((got = syscall(SYS_getdents64, fd, buf, sizeof(buf))) > 0)
    for (long at = 0; at < got; at += *(unsigned short *)(void *)(buf + at + 16))
      take(buf + at + 19);
  end("with a small buffer");
  OP(lseek(fd, 0, SEEK_SET));
  OP(syscall(SYS_getdents64, fd, buf, 8));
  OP(syscall(SYS_getdents64, FD(open("d/n0000", O_RDONLY)), buf, 512));
  for (int i = 0; i < kNames; i++) {
    snprintf(name, sizeof(name), "d/n%04d%.*s", i, i % 100,
             "-------------------------------------------------------------------------------------"
             "------------------");
    SETUP(unlink(name));
  }
  OP(rmdir_emptied("d"));
}
