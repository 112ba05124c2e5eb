// SPDX-License-Identifier: GPL-2.0
// O_APPEND: where it lands, beside other descriptors, and from two processes.
#include "case.h"

enum { kTimes = 200 };

static void append_lines(char who) {
  const int fd = open("both", O_WRONLY | O_APPEND);
  char line[9];
  for (int i = 0; i < kTimes; i++) {
    snprintf(line, sizeof(line), "%c %05d\n", who, i);
    if (write(fd, line, 8) != 8) _exit(1);
  }
  _exit(0);
}

static void check_lines(void) {
  FILE *file = fopen("both", "r");
  char line[64];
  int next[2] = {0, 0}, odd = 0, number;
  char who;
  while (fgets(line, sizeof(line), file))
    if (sscanf(line, "%c %d", &who, &number) != 2 || (who != 'a' && who != 'b') ||
        number != next[who - 'a']++)
      odd++;
  fclose(file);
  say("lines of a %d, of b %d, out of place %d", next[0], next[1], odd);
}

static void run_case(void) {
  char buf[8];
  put("f", "start.");
  const int fd = FD(open("f", O_RDWR | O_APPEND));
  OP(lseek(fd, 0, SEEK_CUR));
  OP(write(fd, "one.", 4));
  OP(lseek(fd, 0, SEEK_CUR));
  OP(lseek(fd, 0, SEEK_SET));
  OP(read(fd, buf, 2));
  OP(write(fd, "two.", 4));
  OP(lseek(fd, 0, SEEK_CUR));
  // On Linux the place that pwrite() names does not count.
  OP(pwrite(fd, "three.", 6, 0));
  say_file("f");
  const int other = FD(open("f", O_WRONLY));
  OP(lseek(other, 0, SEEK_END));
  OP(write(other, "other.", 6));
  OP(write(fd, "four.", 5));
  OP(fcntl(fd, F_SETFL, 0));
  OP(pwrite(fd, "S", 1, 0));
  OP(fcntl(other, F_SETFL, O_APPEND));
  OP(write(other, "five.", 5));
  OP(truncate("f", 3));
  OP(write(other, "six.", 4));
  say_file("f");

  // Over NFS processes may overwrite what another one has appended.
  if (over_nfs()) return;
  put("both", "");
  fflush(stdout);
  const pid_t a = fork();
  if (a == 0) append_lines('a');
  const pid_t b = fork();
  if (b == 0) append_lines('b');
  say_end("a", a);
  say_end("b", b);
  check_lines();
  OP(unlink("both"));
}
