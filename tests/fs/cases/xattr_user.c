// SPDX-License-Identifier: GPL-2.0
// Extended attributes of users: set, get, list, remove, and every room too small for them.
#include "case.h"
#include <sys/xattr.h>

static void say_list(const char *path) {
  char list[4096], sorted[64][64];
  const ssize_t size = listxattr(path, list, sizeof(list));
  if (size < 0) {
    say("names of %s: %s", path, errno_name(errno));
    return;
  }
  int count = 0;
  // What a security module adds is not of this case.
  for (ssize_t at = 0; at < size && count < 64; at += (ssize_t)strlen(list + at) + 1)
    if (strncmp(list + at, "security.", 9) != 0) snprintf(sorted[count++], 64, "%s", list + at);
  qsort(sorted, (size_t)count, sizeof(sorted[0]), (int (*)(const void *, const void *))strcmp);
  say("names of %s: %d", path, count);
  for (int i = 0; i < count; i++) say("  %s", sorted[i]);
}

static void run_case(void) {
  char value[256];
  put("f", "x");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "link"));
  SETUP(mkfifo("fifo", 0644));
  if (OP(setxattr("f", "user.one", "first", 5, 0)) < 0 && errno == EOPNOTSUPP) return;
  OP(getxattr("f", "user.one", value, sizeof(value)));
  say_bytes("value", value, 5);
  OP(getxattr("f", "user.one", value, 0));
  OP(getxattr("f", "user.one", value, 4));
  OP(getxattr("f", "user.one", value, 5));
  OP(getxattr("f", "user.missing", value, sizeof(value)));
  OP(setxattr("f", "user.one", "second value", 12, XATTR_CREATE));
  OP(setxattr("f", "user.one", "second value", 12, XATTR_REPLACE));
  OP(setxattr("f", "user.two", "x", 1, XATTR_REPLACE));
  OP(setxattr("f", "user.two", "x", 1, XATTR_CREATE));
  OP(setxattr("f", "user.two", "x", 1, 77));
  OP(setxattr("f", "user.empty", "", 0, 0));
  OP(getxattr("f", "user.empty", value, sizeof(value)));
  OP(setxattr("f", "user.bytes", "\0\xff\n", 3, 0));
  OP(getxattr("f", "user.bytes", value, sizeof(value)));
  say_bytes("value", value, 3);
  say_list("f");
  OP(listxattr("f", value, 3));
  OP(removexattr("f", "user.two"));
  OP(removexattr("f", "user.two"));
  say_list("f");
  OP(setxattr("f", "user.", "x", 1, 0));
  OP(setxattr("f", "", "x", 1, 0));
  OP(setxattr("f", "odd.name", "x", 1, 0));
  OP(getxattr("f", "odd.name", value, sizeof(value)));
  OP(removexattr("f", "odd.name"));
  static char name[300] = "user.";
  memset(name + 5, 'n', 250);
  OP(setxattr("f", name, "x", 1, 0));
  OP(getxattr("f", name, value, sizeof(value)));
  OP(removexattr("f", name));
  name[255] = 'n';
  OP(setxattr("f", name, "x", 1, 0));
  static char large[65537];
  OP(setxattr("f", "user.large", large, 65537, 0));
  OP(setxattr("missing", "user.one", "x", 1, 0));
  OP(listxattr("missing", value, sizeof(value)));

  OP(setxattr("d", "user.dir", "x", 1, 0));
  say_list("d");
  OP(setxattr("link", "user.through", "x", 1, 0));
  OP(lsetxattr("link", "user.link", "x", 1, 0));
  OP(lgetxattr("link", "user.link", value, sizeof(value)));
  OP(llistxattr("link", value, sizeof(value)));
  OP(setxattr("fifo", "user.fifo", "x", 1, 0));
  const int fd = FD(open("f", O_RDONLY));
  OP(fsetxattr(fd, "user.fd", "y", 1, 0));
  OP(fgetxattr(fd, "user.fd", value, sizeof(value)));
  OP(fremovexattr(fd, "user.fd"));
  OP(rename("f", "g"));
  say_list("g");
  OP(unlink("g"));
  OP(fgetxattr(fd, "user.one", value, sizeof(value)));
}
