// SPDX-License-Identifier: GPL-2.0
// Listing while names are removed and made: what stays is listed once.
#include "case.h"
#include <dirent.h>

enum { kNames = 500 };

static void run_case(void) {
  char name[32];
  static int seen[kNames];
  SETUP(mkdir("d", 0755));
  for (int i = 0; i < kNames; i++) {
    snprintf(name, sizeof(name), "d/n%d", i);
    put(name, "x");
  }
  // Each is removed when it is met, as rm -r does.
  DIR *dir = opendir("d");
  int removed = 0;
  for (struct dirent *entry; (entry = readdir(dir));)
    if (entry->d_name[0] == 'n') removed += unlinkat(dirfd(dir), entry->d_name, 0) == 0;
  closedir(dir);
  say("removed %d", removed);
  OP(rmdir_emptied("d"));

  // Odd ones go, others come meanwhile; even ones are listed once each.
  SETUP(mkdir("d", 0755));
  for (int i = 0; i < kNames; i++) {
    snprintf(name, sizeof(name), "d/n%d", i);
    put(name, "x");
  }
  dir = opendir("d");
  int met = 0;
  for (struct dirent *entry; (entry = readdir(dir));) {
    if (met++ == 10)
      for (int i = 0; i < kNames; i++) {
        snprintf(name, sizeof(name), "d/%c%d", i % 2 ? 'n' : 'x', i);
        if (i % 2) {
          SETUP(unlink(name));
        } else {
          put(name, "x");
        }
      }
    if (entry->d_name[0] == 'n') seen[atoi(entry->d_name + 1)]++;
  }
  closedir(dir);
  int once = 0, more = 0;
  for (int i = 0; i < kNames; i++) {
    if (i % 2 == 0) once += seen[i] == 1;
    more += seen[i] > 1;
  }
  say("even ones listed once %d, anything twice %d", once, more);
  for (int i = 0; i < kNames; i++) {
    snprintf(name, sizeof(name), "d/%c%d", 'n', i);
    unlink(name);
    snprintf(name, sizeof(name), "d/%c%d", 'x', i);
    unlink(name);
  }
  OP(rmdir_emptied("d"));
}
