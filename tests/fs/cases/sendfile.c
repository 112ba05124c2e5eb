// SPDX-License-Identifier: GPL-2.0
// sendfile() and splice() from and to files.
#include "case.h"
#include <sys/sendfile.h>

static void drain(int fd, size_t size) {
  static char buf[70000];
  size_t got = 0;
  for (ssize_t n; got < size && (n = read(fd, buf + got, size - got)) > 0;) got += (size_t)n;
  unsigned sum = 0;
  for (size_t i = 0; i < got; i++) sum = sum * 31 + (unsigned char)buf[i];
  say("%zu bytes through the pipe, sum %u", got, sum);
}

static void run_case(void) {
  static char data[60000];
  int pipes[2];
  for (size_t i = 0; i < sizeof(data); i++) data[i] = (char)(i * 7 >> 3);
  const int in = FD(open("in", O_RDWR | O_CREAT, 0644));
  OP(write(in, data, sizeof(data)));
  SETUP(pipe(pipes));
  SETUP(fcntl(pipes[0], F_SETFL, O_NONBLOCK));  // older kernels send to sockets only
  off_t at = 0;
  OP(sendfile(pipes[1], in, &at, 10000));
  say("at %lld", (long long)at);
  drain(pipes[0], 10000);
  OP(lseek(in, 100, SEEK_SET));
  OP(sendfile(pipes[1], in, NULL, 5000));
  OP(lseek(in, 0, SEEK_CUR));
  drain(pipes[0], 5000);
  at = 59000;
  OP(sendfile(pipes[1], in, &at, 5000));
  say("at %lld", (long long)at);
  drain(pipes[0], 1000);
  OP(sendfile(pipes[1], in, &at, 5000));
  at = -1;
  OP(sendfile(pipes[1], in, &at, 5));
  const int writer = FD(open("in", O_WRONLY));
  OP(sendfile(pipes[1], writer, NULL, 5));

  loff_t from = 4096;
  OP(splice(in, &from, pipes[1], NULL, 8192, 0));
  drain(pipes[0], 8192);
  const int out = FD(open("out", O_RDWR | O_CREAT, 0644));
  OP(write(pipes[1], "through the pipe", 16));
  loff_t to = 5;
  OP(splice(pipes[0], NULL, out, &to, 16, 0));
  say_file("out");
  OP(write(pipes[1], "onwards", 7));
  OP(lseek(out, 0, SEEK_SET));
  OP(splice(pipes[0], NULL, out, NULL, 7, 0));
  say_file("out");
  OP(splice(in, NULL, out, NULL, 7, 0));
}
