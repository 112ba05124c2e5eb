// SPDX-License-Identifier: GPL-2.0
// chdir(), fchdir(), getcwd() and chroot(), also where the directory has gone.
#include "case.h"

// Prints the last component only: where the test stands differs.
static void say_cwd(void) {
  char here[4096];
  if (!getcwd(here, sizeof(here))) {
    say("getcwd: %s", errno_name(errno));
  } else {
    const char *last = strrchr(here, '/');
    say("in %s", last ? last + 1 : here);
  }
}

static void in_root(void) {
  struct stat st;
  OP(chroot("d"));
  OP(chdir("/"));
  say_cwd();
  say_file("/f");
  OP(stat("/../f", &st));
  OP(stat("../../e/g", &st));
  say_file("/up");
  OP(mkdir("/made", 0755));
  OP(chroot("/f"));
  OP(chroot("/missing"));
}

static void as_user(void) {
  become(kUser, kUser, 0);
  OP(chroot("d"));
  OP(chdir("closed"));
}

static void run_case(void) {
  struct stat st;
  const int top = FD(open(".", O_RDONLY));
  SETUP(mkdir("d", 0755));
  SETUP(mkdir("d/e", 0755));
  SETUP(mkdir("closed", 0700));
  put("d/f", "inside");
  put("d/e/g", "x");
  SETUP(symlink("/f", "d/up"));
  SETUP(symlink("d/e", "to-e"));
  OP(chdir("d/e"));
  say_cwd();
  OP(chdir(".."));
  say_cwd();
  OP(chdir("../to-e"));
  say_cwd();
  OP(chdir("g"));
  OP(chdir("missing"));
  OP(chdir(""));
  OP(fchdir(top));
  OP(fchdir(FD(open("d/f", O_RDONLY))));
  OP(fchdir(-1));

  OP(chdir("d/e"));
  OP(rename("../e", "../renamed"));
  say_cwd();
  OP(unlink("g"));
  usleep(20000);  // a client of NFS tells one change from the next by the tick of its clock
  OP(rmdir_emptied("../renamed"));
  say_cwd();
  OP(stat(".", &st));
  OP(stat("..", &st));
  OP(stat("x", &st));
  FD(open("x", O_CREAT | O_WRONLY, 0644));
  OP(mkdir("x", 0755));
  FD(open(".", O_RDONLY));
  OP(chdir("."));
  OP(chdir(".."));
  say_cwd();
  OP(fchdir(top));
  if (geteuid() == 0) {
    in_child(in_root);
    in_child(as_user);
  }
  say_stat("d/made");
}
