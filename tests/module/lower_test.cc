// SPDX-License-Identifier: GPL-2.0
// The same over every kind of lower file system: what a program does through the mount has the
// result and leaves behind what it does on the lower directory itself, and is recorded the same
// way.
#include "tests/module/lower_kinds.h"
#include "tests/ukern/as_user.h"
#include "tests/ukern/open_file.h"
#include "ukern/testing/uk_mm.h"

namespace {

constexpr const char *tops[] = {"/lower", "/mnt"};

enum { kSharedMapping = 1, kReadWrite = 3, kMsyncSync = 4 };

// True if both paths hold exactly these bytes.
bool both_hold(const char *name, const char *data, unsigned long size) {
  char path[64];
  test_buffer held(size + 1);
  for (const char *top : tops) {
    snprintf(path, sizeof(path), "%s/%s", top, name);
    test_file file(path, O_RDONLY);
    if (file.error() || file.read(held.get(), size + 1, 0) != static_cast<long>(size)) return false;
    if (memcmp(held.get(), data, size)) return false;
  }
  return true;
}

void expect_same_attributes(const char *name) {
  char upper[64], lower[64];
  snprintf(upper, sizeof(upper), "/mnt/%s", name);
  snprintf(lower, sizeof(lower), "/lower/%s", name);
  struct uk_stat above = {}, below = {};
  EXPECT_EQ(test_stat(upper, &above), 0);
  EXPECT_EQ(test_stat(lower, &below), 0);
  EXPECT_EQ(above.ino, below.ino);
  EXPECT_EQ(above.mode, below.mode);
  EXPECT_EQ(above.nlink, below.nlink);
  EXPECT_EQ(above.uid, below.uid);
  EXPECT_EQ(above.gid, below.gid);
  EXPECT_EQ(above.rdev, below.rdev);
  // A directory's size is copied at a lookup and at a creation in it only; who has no getattr of
  // the lower object reports blocks by its size.
  if (!S_ISDIR(above.mode)) EXPECT_EQ(above.size, below.size);
  if (S_ISREG(above.mode)) EXPECT_EQ(above.blocks, below.blocks);
  EXPECT_EQ(above.atime.sec, below.atime.sec);
  EXPECT_EQ(above.mtime.sec, below.mtime.sec);
  EXPECT_EQ(above.mtime.nsec, below.mtime.nsec);
  EXPECT_EQ(above.ctime.sec, below.ctime.sec);
  EXPECT_EQ(above.ctime.nsec, below.ctime.nsec);
}

struct listed {
  unsigned count;
  unsigned long long inodes;
};

int list_entry_(void *arg, const char *name, unsigned long long ino, unsigned, unsigned long long) {
  auto *seen = static_cast<struct listed *>(arg);
  seen->count++;
  if (strcmp(name, "..")) seen->inodes += ino;
  return 0;
}

struct listed list(const char *path) {
  struct listed seen = {0, 0};
  test_file dir(path, O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(dir.error(), 0);
  if (!dir.error()) EXPECT_EQ(uk_readdir(dir.get(), 0, list_entry_, &seen), 0);
  return seen;
}

int set_attributes(const char *path, unsigned set, const struct uk_stat &want) {
  const test_node node(path);
  if (node.error()) return node.error();
  struct uk_stat after = {};
  return uk_setattr(node.get(), nullptr, set, &want, &after);
}

// A shared mapping of a file's first page.
class mapped_page {
 public:
  explicit mapped_page(test_file &file) {
    EXPECT_EQ(uk_mmap(file.get(), 0, 4096, kReadWrite, kSharedMapping, &map_), 0);
  }
  ~mapped_page() { drop(); }
  mapped_page(const mapped_page &) = delete;
  mapped_page &operator=(const mapped_page &) = delete;
  struct uk_mapping *get() {
    return map_;
  }
  void drop() {
    if (map_) uk_munmap(map_);
    map_ = nullptr;
  }

 private:
  struct uk_mapping *map_ = nullptr;
};

}  // namespace

LOWER_CASE(files_hold_what_was_written) {
  static const unsigned long sizes[] = {0, 1, 4095, 4096, 4097, 70001};
  (void)mount;
  char name[32], path[64];
  for (unsigned i = 0; i < ARRAY_SIZE(sizes); i++) {
    test_buffer data(sizes[i] + 1);
    fill_pattern(data.get(), sizes[i], i);
    snprintf(name, sizeof(name), "d/f%u", i);
    snprintf(path, sizeof(path), "/mnt/%s", name);
    {
      test_file file(path, O_CREAT | O_RDWR);
      REQUIRE_EQ(file.error(), 0);
      EXPECT_EQ(file.write(data.get(), sizes[i], 0), static_cast<long>(sizes[i]));
    }
    EXPECT_TRUE(both_hold(name, data.get(), sizes[i]));
    uk_drop_caches();
    EXPECT_TRUE(both_hold(name, data.get(), sizes[i]));
    expect_same_attributes(name);
  }
}

LOWER_CASE(overwriting_appending_and_cutting) {
  (void)mount;
  test_buffer data(20001);
  fill_pattern(data.get(), 20000, 3);
  {
    test_file file("/mnt/f", O_CREAT | O_RDWR);
    REQUIRE_EQ(file.error(), 0);
    EXPECT_EQ(file.write(data.get(), 10000, 0), 10000);
    memset(data.get() + 4000, 'o', 200);
    EXPECT_EQ(file.write(data.get() + 4000, 200, 4000), 200);
    test_file end("/mnt/f", O_WRONLY | O_APPEND);
    EXPECT_EQ(end.write(data.get() + 10000, 10000, 0), 10000);
  }
  EXPECT_TRUE(both_hold("f", data.get(), 20000));
  struct uk_stat want = {};
  want.size = 4097;
  EXPECT_EQ(set_attributes("/mnt/f", UK_SET_SIZE, want), 0);
  EXPECT_TRUE(both_hold("f", data.get(), 4097));
  want.size = 9000;
  EXPECT_EQ(set_attributes("/mnt/f", UK_SET_SIZE, want), 0);
  memset(data.get() + 4097, 0, 9000 - 4097);
  EXPECT_TRUE(both_hold("f", data.get(), 9000));
  expect_same_attributes("f");
}

LOWER_CASE(names_are_made_moved_and_removed) {
  (void)mount;
  EXPECT_EQ(test_mkdir("/mnt/d/e", 0751), 0);
  EXPECT_EQ(test_mknod("/mnt/d/p", S_IFIFO | 0622, 0), 0);
  EXPECT_EQ(test_symlink("to/where", "/mnt/d/l"), 0);
  EXPECT_EQ(test_put("/mnt/d/f", "text"), 4);
  EXPECT_EQ(test_link("/mnt/d/f", "/mnt/d/e/g"), 0);
  static const char *const made[] = {"d", "d/e", "d/p", "d/l", "d/f", "d/e/g"};
  for (const char *name : made) expect_same_attributes(name);
  {
    const test_walk f("/mnt/d/f"), g("/mnt/d/e/g");
    EXPECT_EQ(f.inode(), g.inode());
  }
  char text[32] = {};
  const test_name link("/mnt/d/l");
  EXPECT_EQ(uk_readlink(link.get(), text, sizeof(text)), 8);
  EXPECT_STREQ(text, "to/where");
  EXPECT_EQ(test_rename("/mnt/d/f", "/mnt/f"), 0);
  EXPECT_EQ(test_rename("/mnt/d/e", "/mnt/e"), 0);
  EXPECT_TRUE(test_holds("/lower/e/g", "text"));
  EXPECT_TRUE(test_holds("/mnt/f", "text"));
  EXPECT_EQ(test_put("/mnt/e/h", "over"), 4);
  EXPECT_EQ(test_rename("/mnt/e/h", "/mnt/e/g"), 0);
  EXPECT_TRUE(test_holds("/lower/e/g", "over"));
  EXPECT_EQ(test_unlink("/mnt/e/g"), 0);
  EXPECT_EQ(test_rmdir("/mnt/e"), 0);
  EXPECT_EQ(test_unlink("/mnt/d/p"), 0);
  EXPECT_FALSE(test_exists("/lower/e"));
  EXPECT_FALSE(test_exists("/lower/d/p"));
  expect_same_attributes("d");
  expect_same_attributes("f");
}

LOWER_CASE(refusals_are_the_lower_ones) {
  (void)mount;
  REQUIRE_EQ(test_mkdir("/lower/full"), 0);
  REQUIRE_EQ(test_put("/lower/full/f", "x"), 1);
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  struct refusal {
    int (*call)(const char *a, const char *b);
    const char *a, *b;
    int error;
  };
  static const struct refusal refusals[] = {
      {[](const char *a, const char *) { return test_mkdir(a); }, "d", "", -EEXIST},
      {[](const char *a, const char *) { return test_mkdir(a); }, "f/x", "", -ENOTDIR},
      {[](const char *a, const char *) { return test_mkdir(a); }, "no/x", "", -ENOENT},
      {[](const char *a, const char *) { return test_rmdir(a); }, "full", "", -ENOTEMPTY},
      {[](const char *a, const char *) { return test_rmdir(a); }, "f", "", -ENOTDIR},
      {[](const char *a, const char *) { return test_unlink(a); }, "d", "", -EISDIR},
      {[](const char *a, const char *) { return test_unlink(a); }, "no", "", -ENOENT},
      {test_link, "f", "d", -EEXIST},
      {test_link, "d", "d2", -EPERM},
      {test_rename, "d", "full", -ENOTEMPTY},
      {test_rename, "d", "f", -ENOTDIR},
      {test_rename, "f", "d", -EISDIR},
      {test_rename, "full", "full/x", -EINVAL},
      {[](const char *a, const char *) { return test_file(a, O_RDWR).error(); }, "d", "", -EISDIR},
  };
  for (const struct refusal &refusal : refusals) {
    for (const char *top : tops) {
      char a[64], b[64];
      snprintf(a, sizeof(a), "%s/%s", top, refusal.a);
      snprintf(b, sizeof(b), "%s/%s", top, refusal.b);
      EXPECT_EQ(refusal.call(a, b), refusal.error);
    }
  }
  EXPECT_TRUE(test_holds("/mnt/full/f", "x"));
}

LOWER_CASE(attributes_that_are_set_are_there_on_both_sides) {
  (void)mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  struct uk_stat want = {};
  want.mode = 04751;
  want.uid = 12;
  want.gid = 34;
  want.atime = {1000000000, 0};
  want.mtime = {1100000000, 0};
  static const char *const names[] = {"f", "d"};
  for (const char *name : names) {
    char path[64];
    snprintf(path, sizeof(path), "/mnt/%s", name);
    EXPECT_EQ(set_attributes(path, UK_SET_UID | UK_SET_GID, want), 0);
    EXPECT_EQ(set_attributes(path, UK_SET_MODE, want), 0);
    EXPECT_EQ(set_attributes(path, UK_SET_ATIME | UK_SET_MTIME, want), 0);
    struct uk_stat stat = {};
    EXPECT_EQ(test_stat(path, &stat), 0);
    EXPECT_EQ(stat.mode & 07777, 04751u);
    EXPECT_EQ(stat.uid, 12u);
    EXPECT_EQ(stat.gid, 34u);
    EXPECT_EQ(stat.atime.sec, 1000000000);
    EXPECT_EQ(stat.mtime.sec, 1100000000);
    expect_same_attributes(name);
  }
}

LOWER_CASE(extended_attributes_are_the_lower_ones) {
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  const test_node upper("/mnt/f"), lower("/lower/f");
  mount.daemon().drain();
  const int set = uk_setxattr(lower.get(), "user.below", "b", 1, 0);
  if (mount.kind() == over_memfs_without_xattr) EXPECT_EQ(set, -EOPNOTSUPP);
  if (mount.kind() == over_memfs) EXPECT_EQ(set, 0);
  EXPECT_EQ(uk_setxattr(upper.get(), "user.above", "aa", 2, 0), set);
  char value[16] = {}, names[128];
  EXPECT_EQ(uk_getxattr(lower.get(), "user.above", value, sizeof(value)), set ? set : 2);
  EXPECT_EQ(uk_getxattr(upper.get(), "user.below", value, sizeof(value)), set ? set : 1);
  const long listed_below = uk_listxattr(lower.get(), names, sizeof(names));
  EXPECT_EQ(uk_listxattr(upper.get(), names, sizeof(names)), set ? set : listed_below);
  EXPECT_EQ(uk_removexattr(upper.get(), "user.below"), set);
  if (!set) EXPECT_EQ(uk_getxattr(lower.get(), "user.below", value, sizeof(value)), -ENODATA);
  EXPECT_TRUE(mount.daemon().idle());
}

LOWER_CASE(fsync_is_the_lower_one) {
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("text", 4, 0), 4);
  const int expected = mount.kind() == over_memfs_without_fsync ? -EINVAL : 0;
  EXPECT_EQ(uk_fsync(file.get(), 0), expected);
  EXPECT_EQ(uk_fsync(file.get(), 1), expected);
}

LOWER_CASE(directories_list_the_same_objects) {
  (void)mount;
  char path[64];
  for (int i = 0; i < 100; i++) {
    snprintf(path, sizeof(path), "/mnt/d/file-%d", i);
    REQUIRE_EQ(test_put(path, "x"), 1);
  }
  const struct listed above = list("/mnt/d"), below = list("/lower/d");
  EXPECT_EQ(above.count, 102u);
  EXPECT_EQ(below.count, 102u);
  EXPECT_EQ(above.inodes, below.inodes);
}

LOWER_CASE(mapped_page_reaches_the_lower_file_by_msync_and_by_write_back) {
  test_buffer data(8192);
  fill_pattern(data.get(), 8192, 5);
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write(data.get(), 8192, 0), 8192);
  mount.daemon().drain();
  {
    mapped_page map(file);
    char seen[16];
    EXPECT_EQ(uk_map_read(map.get(), 100, seen, 16), 0);
    EXPECT_EQ(memcmp(seen, data.get() + 100, 16), 0);
    memcpy(data.get() + 10, "stored", 6);
    EXPECT_EQ(uk_map_write(map.get(), 10, "stored", 6), 0);
    // Where fsync is missing below, msync says so, but the page has gone down before.
    uk_msync(map.get(), 0, 4096, kMsyncSync);
    EXPECT_TRUE(both_hold("f", data.get(), 8192));
    memcpy(data.get() + 20, "again", 5);
    EXPECT_EQ(uk_map_write(map.get(), 20, "again", 5), 0);
  }
  uk_sync();
  EXPECT_TRUE(both_hold("f", data.get(), 8192));
  {
    mapped_page map(file);
    memcpy(data.get() + 30, "once more", 9);
    EXPECT_EQ(uk_map_write(map.get(), 30, "once more", 9), 0);
  }
  uk_wake_writeback();
  while (!both_hold("f", data.get(), 8192)) msleep(1);
  EXPECT_TRUE(mount.daemon().idle());
}

// On a mount over a mount the page of a mapping is captured by the lower one's path: when a thread
// writes it back, as it is; when the process itself does, the page cannot be read as user memory.
MODULE_CASE(over_tarn, mapped_page_is_captured_on_its_way_down) {
  lower_mount mount(over_tarn);
  REQUIRE_EQ(mount.error(), 0);
  test_buffer data(4096, 'm');
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write(data.get(), 4096, 0), 4096);
  do_flush(0);
  REQUIRE_EQ(install_rule('b', "/base"), 0);
  mount.daemon().drain();
  const test_walk upper("/mnt/f");
  {
    mapped_page map(file);
    EXPECT_EQ(uk_map_write(map.get(), 10, "thread", 6), 0);
  }
  uk_wake_writeback();
  memcpy(data.get() + 10, "thread", 6);
  while (!both_hold("f", data.get(), 4096)) msleep(1);
  struct page *page = find_lock_page(upper.inode()->i_mapping, 0);  // written to the end
  REQUIRE_TRUE(page);
  unlock_page(page);
  page_cache_release(page);
  // The capture of the page and then that of the write which it becomes below.
  for (int i = 0; i < 2; i++) {
    const test_message &record = mount.daemon().next();
    EXPECT_EQ(record.type(), OX_OP_WRITE);
    EXPECT_EQ(record.wr()->pages, 2u);
    EXPECT_EQ(record.wr()->off, 0ull);
    EXPECT_STREQ(record.wr()->data, "/base/f");
    EXPECT_EQ(memcmp(record.wr()->data + record.wr()->dlen1, data.get(), 1000), 0);
    EXPECT_EQ(mount.daemon().next().wr()->pagenr, 1u);
  }
  EXPECT_TRUE(mount.daemon().idle());

  mapped_page map(file);
  EXPECT_EQ(uk_map_write(map.get(), 10, "myself", 6), 0);
  EXPECT_EQ(uk_msync(map.get(), 0, 4096, kMsyncSync), 0);
  memcpy(data.get() + 10, "myself", 6);
  EXPECT_TRUE(both_hold("f", data.get(), 4096));
  EXPECT_TRUE(case_logged("tarn_write_sync: tarn_wrtrans_alloc fail"));
  EXPECT_EQ(mount.daemon().next().type(), OX_OP_STOP_RULE);
}

LOWER_CASE(unlinked_file_stays_usable) {
  (void)mount;
  test_file file("/mnt/d/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("before", 6, 0), 6);
  EXPECT_EQ(test_unlink("/mnt/d/f"), 0);
  EXPECT_FALSE(test_exists("/lower/d/f"));
  EXPECT_EQ(test_rmdir("/mnt/d"), 0);
  EXPECT_EQ(file.write("after", 5, 6), 5);
  char text[16] = {};
  EXPECT_EQ(file.read(text, 15, 0), 11);
  EXPECT_STREQ(text, "beforeafter");
  struct uk_stat stat = {};
  EXPECT_EQ(uk_getattr(file.node(), file.get(), &stat), 0);
  EXPECT_EQ(stat.nlink, 0u);
  EXPECT_EQ(stat.size, 11ull);
}

// The task's own limit on the size of files cuts a write and refuses the next one, with the signal.
LOWER_CASE(size_limit_of_the_task) {
  struct rlimit *limit = &current->signal->rlim[RLIMIT_FSIZE];
  const struct rlimit unlimited = *limit;
  test_buffer data(10000, 'x');
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  mount.daemon().drain();
  limit->rlim_cur = 5000;
  EXPECT_EQ(file.write(data.get(), 10000, 0), 5000);
  EXPECT_FALSE(signal_pending(current));
  EXPECT_LT(0, mount.daemon().drain());
  EXPECT_EQ(file.write(data.get(), 1, 5000), -EFBIG);
  EXPECT_TRUE(signal_pending(current));
  flush_signals(current);
  EXPECT_TRUE(mount.daemon().idle());
  *limit = unlimited;
  EXPECT_EQ(file.write(data.get(), 1, 5000), 1);
  EXPECT_TRUE(both_hold("f", data.get(), 5001));
}

// What an ordinary user may not do is refused with the same error as on the lower directory.
LOWER_CASE(ordinary_user_is_refused_as_below) {
  (void)mount;
  struct uk_stat want = {};
  want.mode = 0600;
  REQUIRE_EQ(test_put("/lower/secret", "x"), 1);
  REQUIRE_EQ(set_attributes("/lower/secret", UK_SET_MODE, want), 0);
  REQUIRE_EQ(test_mkdir("/lower/closed", 0700), 0);
  REQUIRE_EQ(test_put("/lower/closed/f", "x"), 1);
  REQUIRE_EQ(test_mkdir("/lower/sticky"), 0);
  want.mode = 01777;
  REQUIRE_EQ(set_attributes("/lower/sticky", UK_SET_MODE, want), 0);
  REQUIRE_EQ(test_put("/lower/sticky/f", "x"), 1);
  struct refusal {
    int (*call)(const char *path);
    const char *name;
    int error;
  };
  static const struct refusal refusals[] = {
      {[](const char *p) { return test_file(p, O_RDONLY).error(); }, "secret", -EACCES},
      {[](const char *p) { return test_file(p, O_WRONLY).error(); }, "secret", -EACCES},
      {[](const char *p) { return test_name(p).error(); }, "closed/f", -EACCES},
      {[](const char *p) { return test_file(p, O_RDONLY | O_DIRECTORY).error(); }, "closed",
       -EACCES},
      {[](const char *p) { return test_mkdir(p); }, "new", -EACCES},
      {[](const char *p) { return static_cast<int>(test_put(p, "x")); }, "new", -EACCES},
      {[](const char *p) { return test_unlink(p); }, "secret", -EACCES},
      {[](const char *p) { return test_unlink(p); }, "sticky/f", -EPERM},
      {[](const char *p) { return test_mknod(p, S_IFCHR | 0600, 0x0103); }, "sticky/dev", -EPERM},
      {[](const char *p) {
         struct uk_stat mode = {};
         mode.mode = 0666;
         return set_attributes(p, UK_SET_MODE, mode);
       },
       "secret", -EPERM},
      {[](const char *p) {
         struct uk_stat owner = {};
         owner.uid = 1000;
         return set_attributes(p, UK_SET_UID, owner);
       },
       "secret", -EPERM},
  };
  as_user user(1000, 1000);
  for (const struct refusal &refusal : refusals) {
    for (const char *top : tops) {
      char path[64];
      snprintf(path, sizeof(path), "%s/%s", top, refusal.name);
      EXPECT_EQ(refusal.call(path), refusal.error);
    }
  }
  EXPECT_EQ(test_put("/mnt/sticky/mine", "x"), 1);
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/sticky/mine", &stat), 0);
  EXPECT_EQ(stat.uid, 1000u);
  EXPECT_EQ(stat.gid, 1000u);
}

LOWER_CASE(statfs_is_the_lower_one) {
  (void)mount;
  const test_node upper("/mnt"), lower("/lower");
  struct uk_statfs above = {}, below = {};
  EXPECT_EQ(uk_statfs(upper.get(), &above), 0);
  EXPECT_EQ(uk_statfs(lower.get(), &below), 0);
  EXPECT_EQ(above.type, below.type);
  EXPECT_EQ(above.blocks, below.blocks);
  EXPECT_EQ(above.files, below.files);
  EXPECT_EQ(above.bsize, below.bsize);
  EXPECT_EQ(above.namelen, below.namelen);
}

// What one script of changes is recorded as, whatever lies below.
LOWER_CASE(records_of_a_script) {
  EXPECT_EQ(test_put("/mnt/f", "data"), 4);
  EXPECT_EQ(test_mkdir("/mnt/e"), 0);
  EXPECT_EQ(test_symlink("f", "/mnt/l"), 0);
  EXPECT_EQ(test_link("/mnt/f", "/mnt/g"), 0);
  EXPECT_EQ(test_rename("/mnt/g", "/mnt/h"), 0);
  struct uk_stat want = {};
  want.mode = 0600;
  EXPECT_EQ(set_attributes("/mnt/f", UK_SET_MODE, want), 0);
  EXPECT_EQ(test_mknod("/mnt/p", S_IFIFO | 0600, 0), 0);
  EXPECT_EQ(test_unlink("/mnt/h"), 0);
  EXPECT_EQ(test_put("/lower/e/x", "x"), 1);
  EXPECT_EQ(test_rmdir("/mnt/e"), -ENOTEMPTY);

  struct expected {
    int op;
    const char *path1, *path2;
  };
  const struct expected script[] = {
      {OX_OP_CREATE, "/lower/f", nullptr},  {OX_OP_SETATTR, nullptr, nullptr},
      {OX_OP_WRITE, nullptr, nullptr},      {OX_OP_MKDIR, "/lower/e", nullptr},
      {OX_OP_SETATTR, nullptr, nullptr},    {OX_OP_SYMLINK, "/lower/l", "f"},
      {OX_OP_LINK, "/lower/f", "/lower/g"}, {OX_OP_RENAME, "/lower/g", "/lower/h"},
      {OX_OP_SETATTR, nullptr, nullptr},    {OX_OP_UNLINK, "/lower/h", nullptr},
      {OX_OP_RMDIR, "/lower/e", nullptr},
  };
  for (const struct expected &expected : script) {
    const test_message &record = mount.daemon().next();
    EXPECT_EQ(record.op(), expected.op);
    if (expected.path1) EXPECT_STREQ(record.path1(), expected.path1);
    if (expected.path2) EXPECT_STREQ(record.path2(), expected.path2);
    if (expected.op == OX_OP_SETATTR) EXPECT_EQ(memcmp(record.attr()->name, "/lower/", 7), 0);
  }
  EXPECT_TRUE(mount.daemon().idle());
}
