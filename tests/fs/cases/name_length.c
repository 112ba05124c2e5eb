// SPDX-License-Identifier: GPL-2.0
// Names up to the longest, and one character more, in every call.
#include "case.h"

static void run_case(void) {
  static char name[300], longer[300], text[300];
  struct stat st;
  memset(name, 'n', 255);
  memset(longer, 'n', 256);
  OP(pathconf(".", _PC_NAME_MAX));
  OP(close(FD(open(name, O_CREAT | O_WRONLY, 0644))));
  OP(stat(name, &st));
  OP(rename(name, "short"));
  OP(link("short", name));
  OP(unlink(name));
  OP(mkdir(name, 0755));
  OP(rmdir(name));
  OP(symlink("x", name));
  OP(readlink(name, text, sizeof(text)));
  OP(unlink(name));
  OP(mkfifo(name, 0644));
  OP(unlink(name));
  OP(stat(longer, &st));
  FD(open(longer, O_RDONLY));
  FD(open(longer, O_CREAT | O_WRONLY, 0644));
  OP(mkdir(longer, 0755));
  OP(rmdir(longer));
  OP(mkfifo(longer, 0644));
  OP(symlink("x", longer));
  OP(readlink(longer, text, sizeof(text)));
  OP(link("short", longer));
  OP(link(longer, "other"));
  OP(rename("short", longer));
  OP(rename(longer, "short"));
  OP(unlink(longer));
  OP(chmod(longer, 0644));
  OP(chown(longer, 0, 0));
  OP(truncate(longer, 0));
  OP(access(longer, F_OK));
  OP(chdir(longer));
}
