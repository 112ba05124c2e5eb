// SPDX-License-Identifier: GPL-2.0
// open() of what is there: directories, links, access modes and the flags that refuse.
#include "case.h"

static void run_case(void) {
  char buf[8];
  int fd;
  put("f", "content");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "to-f"));
  SETUP(symlink("d", "to-d"));
  SETUP(symlink("missing", "dangling"));

  FD(open("missing", O_RDONLY));
  FD(open("f", O_RDONLY | O_DIRECTORY));
  FD(open("f/", O_RDONLY));
  FD(open("to-f", O_RDONLY | O_NOFOLLOW));
  FD(open("to-d", O_RDONLY | O_NOFOLLOW));
  FD(open("to-d", O_RDONLY | O_DIRECTORY));
  FD(open("to-d/", O_RDONLY | O_NOFOLLOW));
  FD(open("dangling", O_RDONLY));
  FD(open("d", O_WRONLY));
  FD(open("d", O_RDWR));
  FD(open("d", O_RDONLY | O_TRUNC));
  FD(open("d", O_RDONLY | O_DIRECTORY | O_NOFOLLOW));

  fd = FD(open("f", O_RDONLY));
  OP(write(fd, "x", 1));
  OP(ftruncate(fd, 0));
  OP(fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK));
  OP(close(fd));
  OP(close(fd));
  fd = FD(open("f", O_WRONLY | O_APPEND | O_NONBLOCK));
  OP(read(fd, buf, 1));
  OP(fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK));
  OP(fcntl(fd, F_SETFL, 0));
  OP(fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK));
  OP(fcntl(fd, F_GETFD));
  OP(close(fd));
  // What neither reads nor writes is for ioctl().
  fd = FD(open("f", O_ACCMODE));
  OP(read(fd, buf, 1));
  OP(write(fd, "x", 1));
  OP(close(fd));

  // Descriptors of one open share a place; of two opens, each has its own.
  fd = FD(open("f", O_RDWR));
  const int twin = dup(fd);
  const int other = FD(open("f", O_RDWR));
  OP(read(fd, buf, 3));
  OP(lseek(twin, 0, SEEK_CUR));
  OP(lseek(other, 0, SEEK_CUR));
  fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) _exit(read(fd, buf, 2) == 2 ? 0 : 1);
  say_end("a child that reads 2 bytes", pid);
  OP(lseek(fd, 0, SEEK_CUR));
  OP(close(fd));
  OP(write(twin, "!", 1));
  say_file("f");
}
