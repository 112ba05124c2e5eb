// SPDX-License-Identifier: GPL-2.0
// The mask of a process, for everything that it makes.
#include "case.h"

static void run_case(void) {
  static const mode_t masks[] = {0, 022, 027, 077, 0111, 0777};
  for (int i = 0; i < 6; i++) {
    umask(masks[i]);
    OP(close(FD(open("f", O_CREAT | O_WRONLY, 0666))));
    OP(close(FD(open("x", O_CREAT | O_WRONLY, 0777))));
    OP(mkdir("d", 0777));
    OP(mkfifo("fifo", 0666));
    OP(mknod("node", S_IFREG | 0666, 0));
    OP(symlink("f", "link"));
    umask(022);
    say("mask %04o", masks[i]);
    say_stat("f");
    say_stat("x");
    say_stat("d");
    say_stat("fifo");
    say_stat("node");
    say_stat("link");
    OP(unlink("f"));
    OP(unlink("x"));
    OP(rmdir("d"));
    OP(unlink("fifo"));
    OP(unlink("node"));
    OP(unlink("link"));
  }
}
