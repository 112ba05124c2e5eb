// SPDX-License-Identifier: GPL-2.0
// FIFOs of the directory: opened from both ends, through a link, removed while in use.
#include "case.h"
#include <poll.h>

static void writes(void) {
  const int fd = open("fifo", O_WRONLY);
  SETUP(write(fd, "from the child", 14));
}

static void run_case(void) {
  char buf[64];
  OP(mkfifo("fifo", 0644));
  FD(open("fifo", O_WRONLY | O_NONBLOCK));
  const int reader = FD(open("fifo", O_RDONLY | O_NONBLOCK));
  OP(read(reader, buf, sizeof(buf)));
  const int writer = FD(open("fifo", O_WRONLY | O_NONBLOCK));
  OP(read(reader, buf, sizeof(buf)));
  OP(write(writer, "hello", 5));
  struct pollfd wait = {reader, POLLIN, 0};
  OP(poll(&wait, 1, 0));
  OP(read(reader, buf, sizeof(buf)));
  say_stat("fifo");
  OP(pwrite(writer, "x", 1, 0));
  OP(lseek(writer, 0, SEEK_SET));
  OP(ftruncate(writer, 0));
  SETUP(link("fifo", "same"));
  const int other = FD(open("same", O_WRONLY));
  OP(write(other, "through the link", 16));
  OP(read(reader, buf, sizeof(buf)));
  OP(unlink("fifo"));
  OP(unlink("same"));
  OP(write(writer, "unlinked", 8));
  OP(read(reader, buf, sizeof(buf)));
  say_fstat("fifo", reader);
  close(writer);
  close(other);
  OP(read(reader, buf, sizeof(buf)));

  OP(mkfifo("fifo", 0600));
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    writes();
    _exit(0);
  }
  const int blocking = FD(open("fifo", O_RDONLY));
  OP(read(blocking, buf, sizeof(buf)));
  say_bytes("read", buf, 14);
  say_end("the child", pid);
}
