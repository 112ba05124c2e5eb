// SPDX-License-Identifier: GPL-2.0
// Every call to the lower file system fails once: what the program gets, whether the change is
// recorded all the same, and that the next call works.
#include "tests/module/kit/mount.h"
#include "tests/ukern/open_file.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_mm.h"

namespace {

constexpr int injected = -EDQUOT;  // which nothing else returns

int chmod_upper(const char *path) {
  return test_chmod(path, 0600);
}

long read_upper(const char *path) {
  char text[8];
  return test_get(path, text, sizeof(text));
}

int list_upper() {
  test_file dir("/mnt", O_RDONLY | O_DIRECTORY);
  if (dir.error()) return dir.error();
  const auto skip = [](void *, const char *, unsigned long long, unsigned,
                       unsigned long long) -> int { return 0; };
  return uk_readdir(dir.get(), 0, skip, nullptr);
}

long write_and_sync(const char *path) {
  test_file file(path, O_RDWR);
  if (file.error()) return file.error();
  const long written = file.write("y", 1, 0);
  return written == 1 ? uk_fsync(file.get(), 0) : written;
}

// The layer's own reads are never direct, so this goes in behind them.
long direct_read(const char *path) {
  open_file file(path, O_RDONLY);
  if (IS_ERR(file.get())) return PTR_ERR(file.get());
  test_buffer block(512);
  kernel_ds_guard kernel_ds;
  file->f_flags |= O_DIRECT;
  loff_t pos = 0;
  return generic_file_read(file.get(), static_cast<char __user *>(block.get()), 512, &pos);
}

// The call of an extended attribute operation on /mnt/f.
long with_node(long (*call)(struct uk_node *)) {
  const test_node node("/mnt/f");
  return node.error() ? node.error() : call(node.get());
}

struct failing {
  enum memfs_op op;
  long (*call)(void);
  long error;  // what the caller sees
  int record;  // the operation recorded all the same; -1: none
  long good;   // the result of the call repeated
};

const struct failing calls[] = {
    {MEMFS_OP_LOOKUP, [] { return (long)test_name("/mnt/f").error(); }, injected, -1, 0},
    {MEMFS_OP_CREATE, [] { return test_put("/mnt/new", "x"); }, injected, -1, 1},
    {MEMFS_OP_MKDIR, [] { return (long)test_mkdir("/mnt/dir"); }, injected, -1, 0},
    {MEMFS_OP_MKNOD, [] { return (long)test_mknod("/mnt/fifo", S_IFIFO | 0600, 0); }, injected, -1,
     0},
    {MEMFS_OP_SYMLINK, [] { return (long)test_symlink("f", "/mnt/sym"); }, injected, -1, 0},
    {MEMFS_OP_LINK, [] { return (long)test_link("/mnt/f", "/mnt/hard"); }, injected, -1, 0},
    {MEMFS_OP_UNLINK, [] { return (long)test_unlink("/mnt/gone"); }, injected, -1, 0},
    {MEMFS_OP_RMDIR, [] { return (long)test_rmdir("/mnt/d"); }, injected, OX_OP_RMDIR, 0},
    {MEMFS_OP_RENAME, [] { return (long)test_rename("/mnt/from", "/mnt/to"); }, injected, -1, 0},
    {MEMFS_OP_READLINK,
     [] {
       const test_name link("/mnt/l");
       char text[8];
       return link.get() ? (long)uk_readlink(link.get(), text, sizeof(text)) : link.error();
     },
     injected, -1, 1},
    {MEMFS_OP_SETATTR, [] { return (long)chmod_upper("/mnt/f"); }, injected, OX_OP_SETATTR, 0},
    {MEMFS_OP_GETATTR,
     [] {
       struct uk_stat stat;
       return (long)test_stat("/mnt/f", &stat);
     },
     injected, -1, 0},
    {MEMFS_OP_STATFS,
     [] {
       const test_node node("/mnt");
       struct uk_statfs figures;
       return (long)uk_statfs(node.get(), &figures);
     },
     injected, -1, 0},
    {MEMFS_OP_READDIR, [] { return (long)list_upper(); }, injected, -1, 0},
    {MEMFS_OP_OPEN, [] { return (long)test_file("/mnt/f", O_RDONLY).error(); }, injected, -1, 0},
    {MEMFS_OP_FSYNC,
     [] {
       test_file file("/mnt/f", O_RDWR);
       return file.error() ? file.error() : (long)uk_fsync(file.get(), 0);
     },
     injected, -1, 0},
    // Page I/O below has one error for every failure.
    {MEMFS_OP_READPAGE, [] { return read_upper("/mnt/f"); }, -EINVAL, -1, 4},
    {MEMFS_OP_PREPARE_WRITE, [] { return test_put("/mnt/f", "y"); }, -EINVAL, -1, 1},
    {MEMFS_OP_COMMIT_WRITE, [] { return test_put("/mnt/f", "y"); }, -EINVAL, -1, 1},
    // What a write-back below could not write is told by the fsync that waits for it.
    {MEMFS_OP_WRITEPAGE, [] { return write_and_sync("/mnt/f"); }, injected, OX_OP_WRITE, 0},
    {MEMFS_OP_DIRECT_IO, [] { return direct_read("/mnt/f"); }, injected, -1, 4},
    {MEMFS_OP_SETXATTR,
     [] {
       return with_node([](struct uk_node *f) { return (long)uk_setxattr(f, "user.b", "", 0, 0); });
     },
     injected, -1, 0},
    {MEMFS_OP_GETXATTR,
     [] {
       return with_node([](struct uk_node *f) { return uk_getxattr(f, "user.a", nullptr, 0); });
     },
     injected, -1, 1},
    {MEMFS_OP_LISTXATTR,
     [] { return with_node([](struct uk_node *f) { return uk_listxattr(f, nullptr, 0); }); },
     injected, -1, 7},
    {MEMFS_OP_REMOVEXATTR,
     [] { return with_node([](struct uk_node *f) { return (long)uk_removexattr(f, "user.a"); }); },
     injected, -1, 0},
};

static_assert(sizeof(calls) / sizeof(calls[0]) == MEMFS_OPS);

}  // namespace

MODULE_CASE(lower_error, each_call_s_failure_is_the_caller_s_and_leaves_nothing) {
  for (const struct failing &failing : calls) {
    replicated r;
    REQUIRE_EQ(test_put("/lower/f", "text"), 4);
    REQUIRE_EQ(test_put("/lower/gone", "x"), 1);
    REQUIRE_EQ(test_put("/lower/from", "x"), 1);
    REQUIRE_EQ(test_mkdir("/lower/d"), 0);
    REQUIRE_EQ(test_symlink("f", "/lower/l"), 0);
    {
      const test_node lower("/lower/f");
      REQUIRE_EQ(uk_setxattr(lower.get(), "user.a", "v", 1, 0), 0);
    }
    uk_sync();
    uk_drop_caches();
    uk_drop_pagecache();
    r.daemon.drain();

    memfs_fail(lower_super(), failing.op, injected, 1);
    const long failed = failing.call();
    memfs_fail(lower_super(), failing.op, 0, 0);
    if (failed != failing.error) printk("lower operation %d:\n", failing.op);
    EXPECT_EQ(failed, failing.error);
    EXPECT_EQ(r.daemon.next().op(), failing.record);
    EXPECT_TRUE(r.daemon.idle());
    EXPECT_EQ(failing.call(), failing.good);
  }
}
