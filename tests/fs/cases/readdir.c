// SPDX-License-Identifier: GPL-2.0
// Listing a directory: what is there, kinds and numbers, empty and removed directories.
#include "case.h"
#include <dirent.h>

static const char *kind_of(unsigned char type) {
  switch (type) {
    case DT_REG:
      return "file";
    case DT_DIR:
      return "directory";
    case DT_LNK:
      return "link";
    case DT_FIFO:
      return "fifo";
    case DT_SOCK:
      return "socket";
    case DT_UNKNOWN:
      return "unknown";
    default:
      return "other";
  }
}

static char lines[64][320];

static void list(const char *path) {
  DIR *dir = opendir(path);
  if (!dir) {
    say("opendir %s: %s", path, errno_name(errno));
    return;
  }
  int count = 0;
  for (struct dirent *entry; (errno = 0, entry = readdir(dir)) && count < 64; count++) {
    struct stat st;
    const int known = fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0;
    // What lies above is the mount's business.
    const int above = strcmp(entry->d_name, "..") == 0;
    snprintf(
        lines[count], sizeof(lines[0]), "%s %s %s", entry->d_name, kind_of(entry->d_type),
        above || (known && st.st_ino == entry->d_ino) ? "with its number" : "with another number");
  }
  const int err = errno;
  qsort(lines, (size_t)count, sizeof(lines[0]), (int (*)(const void *, const void *))strcmp);
  say("%s: %d names%s%s", path, count, err ? ", then " : "", err ? errno_name(err) : "");
  for (int i = 0; i < count; i++) say("  %s", lines[i]);
  closedir(dir);
}

static void run_case(void) {
  list(".");
  put("f", "x");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "link"));
  SETUP(mkfifo("fifo", 0644));
  SETUP(mknod("socket", S_IFSOCK | 0644, 0));
  put("d/\xff\n", "x");
  put("d/a name as long as names are, nearly: "
      "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
      "xxxxxxxxxxxxxxxxx"
      "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx",
      "x");
  list(".");
  list("d");
  list("f");
  list("missing");
  OP(unlink("f"));
  OP(rename("fifo", "renamed"));
  list(".");

  SETUP(mkdir("gone", 0755));
  DIR *dir = opendir("gone");
  OP(rmdir("gone"));
  int count = 0;
  while (readdir(dir)) count++;
  say("names in a removed directory: %d", count);
  closedir(dir);
}
