// SPDX-License-Identifier: GPL-2.0
// poll(), select() and epoll on files, and leases, signals and flags of descriptors.
#include "case.h"
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>

static void run_case(void) {
  put("f", "x");
  const int fd = FD(open("f", O_RDWR));
  struct pollfd one = {fd, POLLIN | POLLOUT | POLLPRI, 0};
  OP(poll(&one, 1, 0));
  OP(one.revents & (POLLIN | POLLOUT | POLLPRI | POLLERR | POLLHUP));
  fd_set readable, writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  FD_SET(fd, &readable);
  FD_SET(fd, &writable);
  struct timeval none = {0, 0};
  OP(select(fd + 1, &readable, &writable, NULL, &none));
  const int queue = FD(epoll_create(1));
  struct epoll_event event = {.events = EPOLLIN};
  OP(epoll_ctl(queue, EPOLL_CTL_ADD, fd, &event));
  const int copy = fcntl(fd, F_DUPFD, 100);
  OP(copy >= 100);
  OP(write(copy, "y", 1));
  OP(close(copy));
  OP(fcntl(fd, F_SETFD, FD_CLOEXEC));
  OP(fcntl(fd, F_GETFD));
  OP(fcntl(fd, F_SETFL, O_ASYNC));
  OP(fcntl(fd, 12345, 0));
  say_file("f");
}
