// SPDX-License-Identifier: GPL-2.0
// access(): with the real user's rights, for files, directories and links.
#include "case.h"

static void try_path(const char *path) {
  say("%s", path);
  OP(access(path, F_OK));
  OP(access(path, R_OK));
  OP(access(path, W_OK));
  OP(access(path, X_OK));
  OP(access(path, R_OK | W_OK | X_OK));
}

static void try_all(void) {
  try_path("none");
  try_path("read");
  try_path("run");
  try_path("all");
  try_path("d");
  try_path("d/f");
  try_path("closed/f");
  try_path("link");
  try_path("dangling");
  try_path("missing");
}

static void as_user(void) {
  become(kUser, kUser, 0);
  try_all();
}

// The effective user does not count, the real one does.
static void as_real_user(void) {
  SETUP(setresuid(kUser, 0, 0));
  OP(access("none", R_OK));
  OP(access("closed/f", F_OK));
  OP(faccessat(AT_FDCWD, "none", R_OK, AT_EACCESS));
}

static void run_case(void) {
  static const char *const files[] = {"none", "read", "run", "all", "d/f", "closed/f"};
  static const mode_t modes[] = {0, 0444, 0555, 0777, 0644, 0644};
  SETUP(mkdir("d", 0755));
  SETUP(mkdir("closed", 0755));
  for (int i = 0; i < 6; i++) {
    put(files[i], "x");
    SETUP(chmod(files[i], modes[i]));
  }
  SETUP(symlink("none", "link"));
  SETUP(symlink("missing", "dangling"));
  SETUP(chmod("closed", 0700));
  need_root();
  try_all();
  in_child(as_user);
  in_child(as_real_user);
  OP(access("all", 077));
}
