// SPDX-License-Identifier: GPL-2.0
// Asynchronous I/O of the kernel: io_submit() of reads, writes and what cannot be.
#include "case.h"
#include <stdint.h>
#include <sys/syscall.h>

// As the kernel has them; not every C library brings its headers along.
enum { IOCB_CMD_PREAD = 0, IOCB_CMD_PWRITE = 1 };
typedef unsigned long aio_context_t;

struct iocb {
  uint64_t aio_data;
  uint32_t aio_key;
  int32_t aio_rw_flags;
  uint16_t aio_lio_opcode;
  int16_t aio_reqprio;
  uint32_t aio_fildes;
  uint64_t aio_buf;
  uint64_t aio_nbytes;
  int64_t aio_offset;
  uint64_t aio_reserved[3];
};

struct io_event {
  uint64_t data;
  uint64_t obj;
  int64_t res;
  int64_t res2;
};

static aio_context_t context;

static void submit(const char *what, struct iocb *one) {
  struct iocb *list[1] = {one};
  struct io_event event;
  errno = 0;
  const long count = syscall(SYS_io_submit, context, 1L, list);
  if (count != 1) {
    say("%s: refused with %ld %s", what, count, count < 0 ? errno_name(errno) : "");
    return;
  }
  if (syscall(SYS_io_getevents, context, 1L, 1L, &event, NULL) != 1) {
    say("%s: no event, %s", what, errno_name(errno));
  } else if (event.res < 0) {
    say("%s: %s", what, errno_name((int)-event.res));
  } else {
    say("%s: %lld", what, (long long)event.res);
  }
}

static struct iocb request(int fd, int opcode, void *buf, size_t size, off_t at) {
  struct iocb one;
  memset(&one, 0, sizeof(one));
  one.aio_fildes = (unsigned)fd;
  one.aio_lio_opcode = (unsigned short)opcode;
  one.aio_buf = (unsigned long)buf;
  one.aio_nbytes = size;
  one.aio_offset = at;
  return one;
}

static void run_case(void) {
  char back[32] = "";
  if (OP(syscall(SYS_io_setup, 8, &context)) < 0) return;
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  struct iocb one = request(fd, IOCB_CMD_PWRITE, (char *)"asynchronous", 12, 3);
  submit("write", &one);
  say_file("f");
  one = request(fd, IOCB_CMD_PREAD, back, 5, 4);
  submit("read", &one);
  say_bytes("read", back, 5);
  one = request(fd, IOCB_CMD_PREAD, back, 32, 10);
  submit("read across the end", &one);
  one = request(fd, IOCB_CMD_PREAD, back, 32, 1000);
  submit("read past the end", &one);
  one = request(fd, IOCB_CMD_PREAD, back, 32, -1);
  submit("read before the start", &one);
  one = request(fd, IOCB_CMD_PWRITE, nowhere, 4, 0);
  submit("write from nowhere", &one);
  one = request(FD(open("f", O_RDONLY)), IOCB_CMD_PWRITE, (char *)"x", 1, 0);
  submit("write without the right", &one);
  one = request(FD(open("f", O_WRONLY | O_APPEND)), IOCB_CMD_PWRITE, (char *)"end", 3, 0);
  submit("append", &one);
  say_file("f");

  static char pages[8][kPage];
  struct iocb many[8], *list[8];
  struct io_event events[8];
  for (int i = 0; i < 8; i++) {
    memset(pages[i], 'a' + i, kPage);
    many[i] = request(fd, IOCB_CMD_PWRITE, pages[i], kPage, (off_t)i * kPage);
    list[i] = &many[i];
  }
  if (OP(syscall(SYS_io_submit, context, 8L, list)) == 8)
    OP(syscall(SYS_io_getevents, context, 8L, 8L, events, NULL));
  say_file("f");
  OP(syscall(SYS_io_destroy, context));
}
