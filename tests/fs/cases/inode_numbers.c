// SPDX-License-Identifier: GPL-2.0
// Inode numbers: distinct, the same for each way to a file, and staying what they are.
#include "case.h"
#include <dirent.h>

enum { kFiles = 300 };

static ino_t number(const char *path) {
  struct stat st;
  SETUP(lstat(path, &st));
  return st.st_ino;
}

static void run_case(void) {
  static ino_t numbers[kFiles];
  char name[32];
  int twice = 0, changed = 0, other_listed = 0;
  for (int i = 0; i < kFiles; i++) {
    snprintf(name, sizeof(name), "f%d", i);
    put(name, "x");
    numbers[i] = number(name);
    for (int k = 0; k < i; k++) twice += numbers[k] == numbers[i];
  }
  say("numbers that two files have: %d", twice);
  sync();
  for (int i = 0; i < kFiles; i++) {
    snprintf(name, sizeof(name), "f%d", i);
    const int fd = open(name, O_RDWR);
    struct stat st;
    SETUP(fstat(fd, &st));
    changed += st.st_ino != numbers[i];
    SETUP(close(fd));
    changed += number(name) != numbers[i];
  }
  DIR *dir = opendir(".");
  for (struct dirent *entry; (entry = readdir(dir));)
    if (entry->d_name[0] == 'f') other_listed += entry->d_ino != numbers[atoi(entry->d_name + 1)];
  closedir(dir);
  say("numbers that changed: %d, listed otherwise: %d", changed, other_listed);

  SETUP(link("f0", "link"));
  OP(number("link") == numbers[0]);
  OP(rename("f1", "moved"));
  OP(number("moved") == numbers[1]);
  SETUP(mkdir("d", 0755));
  const ino_t of_dir = number("d");
  OP(rename("moved", "d/moved"));
  OP(number("d/moved") == numbers[1]);
  OP(number("d") == of_dir);
  OP(number("d/.") == of_dir);
  OP(rename("d", "e"));
  OP(number("e") == of_dir);
  OP(number("e/moved") == numbers[1]);
  OP(number("e/..") == number("."));
  for (int i = 0; i < kFiles; i++) {
    snprintf(name, sizeof(name), "f%d", i);
    unlink(name);
  }
}
