// SPDX-License-Identifier: GPL-2.0
// ioctl() on files and directories: what the kernel answers itself, and what nobody knows.
#include "case.h"
#include <sys/ioctl.h>
#include <termios.h>

static void run_case(void) {
  int value = -1;
  struct termios terminal;
  put("f", "0123456789");
  const int fd = FD(open("f", O_RDWR));
  OP(ioctl(fd, FIONREAD, &value));
  say("to read: %d", value);
  OP(lseek(fd, 4, SEEK_SET));
  OP(ioctl(fd, FIONREAD, &value));
  say("to read: %d", value);
  OP(lseek(fd, 20, SEEK_SET));
  OP(ioctl(fd, FIONREAD, &value));
  say("to read: %d", value);
  value = 1;
  OP(ioctl(fd, FIONBIO, &value));
  OP(fcntl(fd, F_GETFL) & O_NONBLOCK);
  OP(ioctl(fd, FIOCLEX));
  OP(fcntl(fd, F_GETFD));
  OP(ioctl(fd, FIONCLEX));
  OP(fcntl(fd, F_GETFD));
  OP(ioctl(fd, TCGETS, &terminal));
  OP(isatty(fd));
  OP(ioctl(fd, 0x1234, &value));
  OP(ioctl(fd, _IOR('z', 99, int), &value));
  OP(ioctl(fd, _IOW('z', 99, int), nowhere));
  OP(ioctl(fd, FIONREAD, nowhere));
  const int dir = FD(open(".", O_RDONLY));
  OP(ioctl(dir, TCGETS, &terminal));
  OP(ioctl(dir, 0x1234, &value));
  OP(ioctl(-1, FIONREAD, &value));
}
