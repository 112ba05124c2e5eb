/* SPDX-License-Identifier: GPL-2.0 */
#define _GNU_SOURCE
#include "image.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#define DEVICE "/dev/loop0"
#define COPY "/tmp/image"

/* <linux/loop.h> is not among the C library's headers. */
enum { kLoopSetFd = 0x4C00, kLoopClearFd = 0x4C01 };

/* The full size of an image whose empty end was cut off. */
static off_t full_size(const char *image) {
  char path[256], text[32];
  ssize_t got;
  int fd;

  snprintf(path, sizeof(path), "%s.size", image);
  fd = open(path, O_RDONLY);
  got = fd < 0 ? -1 : read(fd, text, sizeof(text) - 1);
  if (fd >= 0) close(fd);
  if (got <= 0) return -1;
  text[got] = 0;
  return atoll(text);
}

/*
 * All of the copy is written, also its empty end: the loop device of 2.6.18 waits for ever when it
 * has to make a page of the file while memory is short.
 */
static int copy_image(const char *from) {
  static char buf[65536];
  const int in = open(from, O_RDONLY), out = open(COPY, O_CREAT | O_TRUNC | O_RDWR, 0600);
  const off_t size = full_size(from);
  off_t done = 0;
  ssize_t got = 0;

  if (in < 0 || out < 0 || size < 0) return -1;
  for (; (got = read(in, buf, sizeof(buf))) > 0; done += got) {
    if (write(out, buf, got) != got) return -1;
  }
  close(in);
  memset(buf, 0, sizeof(buf));
  while (got == 0 && done < size) {
    const ssize_t put =
        write(out, buf, size - done < (off_t)sizeof(buf) ? (size_t)(size - done) : sizeof(buf));
    if (put <= 0) return -1;
    done += put;
  }
  return done == size ? out : -1;
}

/* The device keeps the file for itself. */
static int attach(int file) {
  const int device = open(DEVICE, O_RDWR);
  const int result = device < 0 ? -1 : ioctl(device, kLoopSetFd, file);

  if (device >= 0) close(device);
  close(file);
  return result;
}

static int detach(void) {
  const int device = open(DEVICE, O_RDWR);
  const int result = device < 0 ? -1 : ioctl(device, kLoopClearFd, 0);

  if (device >= 0) close(device);
  unlink(COPY);
  return result;
}

int mount_image(const char *image, const char *type, const char *options, const char *at) {
  const int file = copy_image(image);
  int saved;

  if (file < 0 || attach(file)) return -1;
  if (mount(DEVICE, at, type, 0, options) == 0) return 0;
  saved = errno;
  detach();
  errno = saved;
  return -1;
}

int open_image_copy(void) {
  return open(COPY, O_RDONLY);
}

int unmount_image(const char *at) {
  int saved;

  if (umount(at) == 0) return detach();
  saved = errno;
  umount2(at, MNT_DETACH);
  errno = saved;
  return -1;
}
