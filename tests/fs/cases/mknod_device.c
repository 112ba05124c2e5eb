// SPDX-License-Identifier: GPL-2.0
// Device nodes: numbers small and large, their use, and who may not make them.
#include "case.h"
#include <sys/sysmacros.h>

static void say_device(const char *path) {
  struct stat st;
  SETUP(lstat(path, &st));
  say("%s: %s %u:%u", path, type_name(st.st_mode), major(st.st_rdev), minor(st.st_rdev));
}

static void as_user(void) {
  become(kUser, kUser, 0);
  OP(mknod("open/device", S_IFCHR | 0666, makedev(1, 3)));
  OP(mknod("open/block", S_IFBLK | 0666, makedev(7, 0)));
  OP(mknod("open/fifo", S_IFIFO | 0666, 0));
}

static void run_case(void) {
  need_root();
  OP(mknod("null", S_IFCHR | 0666, makedev(1, 3)));
  say_stat("null");
  say_device("null");
  OP(mknod("block", S_IFBLK | 0600, makedev(259, 70000)));
  say_stat("block");
  say_device("block");
  OP(mknod("large", S_IFCHR | 0600, makedev(4095, 1048575)));
  say_device("large");
  OP(mknod("null", S_IFCHR | 0666, makedev(1, 3)));
  OP(chmod("null", 0600));
  say_stat("null");
  FD(open("large", O_RDWR));
  SETUP(mkdir("open", 0777));
  SETUP(chmod("open", 0777));
  in_child(as_user);
}
