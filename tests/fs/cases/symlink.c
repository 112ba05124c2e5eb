// SPDX-License-Identifier: GPL-2.0
// symlink() and readlink(): long texts, odd ones, and rooms too small for them.
#include "case.h"

static void run_case(void) {
  static char text[5000], back[5000];
  OP(symlink("target", "link"));
  say_stat("link");
  OP(readlink("link", back, sizeof(back)));
  say_bytes("text", back, 6);
  OP(readlink("link", back, 3));
  OP(readlink("link", back, 0));
  OP(symlink("other", "link"));
  OP(symlink("", "empty"));
  OP(symlink("x", ""));
  OP(symlink("x", "missing/link"));
  OP(symlink("/absolute/../odd//path/", "odd"));
  OP(readlink("odd", back, sizeof(back)));
  say_bytes("text", back, 23);
  OP(symlink("\xc3\xa4\xff \n", "bytes"));
  OP(readlink("bytes", back, sizeof(back)));
  say_bytes("text", back, 5);

  put("f", "x");
  SETUP(mkdir("d", 0755));
  OP(readlink("f", back, sizeof(back)));
  OP(readlink("d", back, sizeof(back)));
  OP(readlink("missing", back, sizeof(back)));
  OP(readlink("f/x", back, sizeof(back)));
  umask(0777);
  OP(symlink("target", "masked"));
  umask(022);
  say_stat("masked");
  const int dir = FD(open("d", O_RDONLY));
  OP(symlinkat("../f", dir, "up"));
  OP(readlinkat(dir, "up", back, sizeof(back)));
  say_file("d/up");
  OP(unlink("link"));
  say_stat("link");

  for (int length = 1022; length <= 4096; length += length < 1025 ? 1
                                                    : 1024 - length % 1024 - 1
                                                        ? 1023 - length % 1024
                                                        : 1) {
    memset(text, 'x', (size_t)length);
    text[length] = 0;
    unlink("long");
    say("a text of %d", length);
    OP(symlink(text, "long"));
    OP(readlink("long", back, sizeof(back)));
    say_stat("long");
  }
  unlink("long");
}
