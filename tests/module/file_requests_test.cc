// SPDX-License-Identifier: GPL-2.0
// Reads and writes that wait, are told to be synchronous, or come another way than by a system call
// that waits for them: frozen super blocks, queued and asynchronous requests, sendfile.
#include "tests/module/kit/mount.h"
#include "tests/ukern/open_file.h"
#include "tests/ukern/threads.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_mm.h"

namespace {

enum { kSharedMapping = 1, kReadWrite = 3, kMsyncAsync = 1 };

char byte_at(const char *path, unsigned long long pos) {
  test_file file(path, O_RDONLY);
  char byte = 0;
  EXPECT_EQ(file.read(&byte, 1, pos), 1);
  return byte;
}

// Makes `mark` at byte 100 of an open file a dirty page of it that the lower file has not seen.
void dirty_by_mapping(test_file &file, char mark) {
  struct uk_mapping *map;
  REQUIRE_EQ(uk_mmap(file.get(), 0, 4096, kReadWrite, kSharedMapping, &map), 0);
  EXPECT_EQ(uk_map_write(map, 100, &mark, 1), 0);
  EXPECT_EQ(uk_msync(map, 0, 4096, kMsyncAsync), 0);
  uk_munmap(map);
  EXPECT_NE(byte_at("/lower/f", 100), mark);
}

// The file operations of a lower file that is opened from now on, changed by the case. The files of
// the case that use it are closed before.
class lower_fops {
 public:
  explicit lower_fops(const char *path) : lower_(path), own_(lower_.inode()->i_fop), ops(*own_) {
    lower_.inode()->i_fop = &ops;
  }
  ~lower_fops() {
    lower_.inode()->i_fop = own_;
    uk_drop_caches();  // and with the upper inode the lower file that has them
  }
  lower_fops(const lower_fops &) = delete;
  lower_fops &operator=(const lower_fops &) = delete;

 private:
  const test_walk lower_;
  const struct file_operations *own_;

 public:
  struct file_operations ops;
};

}  // namespace

// Only a synchronous write waits for the page, which holds what a mapping has left in it too.
MODULE_CASE(file_requests, synchronous_write_takes_the_dirty_page_below) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", ""), 0);
  test_buffer zeros(8192);
  test_file plain("/mnt/f", O_RDWR), synchronous("/mnt/f", O_RDWR | O_SYNC);
  EXPECT_EQ(plain.write(zeros.get(), 8192, 0), 8192);
  const test_walk upper("/mnt/f");

  dirty_by_mapping(plain, 'a');
  EXPECT_EQ(plain.write("x", 1, 0), 1);
  EXPECT_EQ(byte_at("/lower/f", 100), '\0');
  EXPECT_EQ(synchronous.write("x", 1, 0), 1);
  EXPECT_EQ(byte_at("/lower/f", 100), 'a');

  dirty_by_mapping(plain, 'b');
  upper.inode()->i_flags |= S_SYNC;
  EXPECT_EQ(plain.write("x", 1, 0), 1);
  upper.inode()->i_flags &= ~S_SYNC;
  EXPECT_EQ(byte_at("/lower/f", 100), 'b');

  dirty_by_mapping(plain, 'c');
  upper.dentry()->d_sb->s_flags |= MS_SYNCHRONOUS;
  EXPECT_EQ(plain.write("x", 1, 0), 1);
  upper.dentry()->d_sb->s_flags &= ~MS_SYNCHRONOUS;
  EXPECT_EQ(byte_at("/lower/f", 100), 'c');
}

// The pages that are waited for are those at the place that the caller gave, also where an append
// has written elsewhere.
MODULE_CASE(file_requests, synchronous_append_waits_for_the_place_that_was_asked_for) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", ""), 0);
  test_buffer zeros(8192);
  test_file plain("/mnt/f", O_RDWR), synchronous("/mnt/f", O_RDWR | O_SYNC | O_APPEND);
  EXPECT_EQ(plain.write(zeros.get(), 8192, 0), 8192);
  dirty_by_mapping(plain, 'a');
  EXPECT_EQ(synchronous.write("x", 1, 4096), 1);
  EXPECT_EQ(byte_at("/lower/f", 8192), 'x');
  EXPECT_EQ(byte_at("/lower/f", 100), '\0');
  EXPECT_EQ(synchronous.write("y", 1, 0), 1);
  EXPECT_EQ(byte_at("/lower/f", 8193), 'y');
  EXPECT_EQ(byte_at("/lower/f", 100), 'a');
}

// An earlier failure of write-back is told by the first that waits; what was written is captured.
MODULE_CASE(file_requests, error_of_the_sync_takes_the_place_of_the_count) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  test_file file("/mnt/f", O_RDWR | O_SYNC);
  const test_walk upper("/mnt/f");
  set_bit(AS_EIO, &upper.inode()->i_mapping->flags);
  EXPECT_EQ(file.write("T", 1, 0), -EIO);
  EXPECT_TRUE(test_holds("/lower/f", "Text"));
  EXPECT_EQ(daemon.next().op(), OX_OP_WRITE);
  EXPECT_EQ(file.write("t", 1, 0), 1);
  do_flush(0);
}

// The task that writes is told which device it writes back to, for the time of the write.
MODULE_CASE(file_requests, writer_has_the_mapping_s_device_until_its_write_is_done) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  lower_fops lower("/lower/f");
  static struct backing_dev_info *during;
  during = nullptr;
  lower.ops.write = [](struct file *, const char __user *, size_t count, loff_t *) -> ssize_t {
    during = current->backing_dev_info;
    return static_cast<ssize_t>(count);
  };
  open_file file("/mnt/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  kernel_ds_guard kernel_ds;
  loff_t pos = 0;
  EXPECT_EQ(vfs_write(file.get(), reinterpret_cast<const char __user *>("T"), 1, &pos), 1);
  EXPECT_NE(during, nullptr);
  EXPECT_EQ(during, file->f_mapping->backing_dev_info);
  EXPECT_EQ(current->backing_dev_info, nullptr);
}

MODULE_CASE(file_requests, frozen_super_block_holds_a_writer_up) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  static struct file *file;
  file = filp_open("/mnt/f", O_RDWR, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  struct super_block *sb = file->f_dentry->d_sb;
  __atomic_store_n(&sb->s_frozen, SB_FREEZE_WRITE, __ATOMIC_RELAXED);
  struct ThreadTeam writer;
  static int written;
  written = 0;
  REQUIRE_TRUE(thread_team_start(
      &writer, 1,
      [](void *) {
        loff_t pos = 0;
        kernel_ds_guard kernel_ds;
        const long n = vfs_write(file, reinterpret_cast<const char __user *>("T"), 1, &pos);
        __atomic_store_n(&written, static_cast<int>(n), __ATOMIC_RELEASE);
      },
      nullptr));
  while (!waitqueue_active(&sb->s_wait_unfrozen) && !__atomic_load_n(&written, __ATOMIC_ACQUIRE))
    msleep(1);
  EXPECT_EQ(__atomic_load_n(&written, __ATOMIC_ACQUIRE), 0);
  EXPECT_TRUE(mutex_is_locked(&file->f_dentry->d_inode->i_mutex));
  EXPECT_TRUE(test_holds("/lower/f", "text"));
  __atomic_store_n(&sb->s_frozen, SB_UNFROZEN, __ATOMIC_RELAXED);
  wake_up(&sb->s_wait_unfrozen);
  thread_team_wait(&writer, 1);
  EXPECT_EQ(written, 1);
  EXPECT_TRUE(test_holds("/lower/f", "Text"));
  filp_close(file, nullptr);
}

// A lower read that only queues the request is waited for.
MODULE_CASE(file_requests, queued_lower_read_is_waited_for) {
  test_mount mount("nfs");
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  lower_fops lower("/lower/f");
  static struct kiocb *queued;
  static struct file *seen;
  static struct ThreadTeam team;
  lower.ops.aio_read = [](struct kiocb *iocb, char __user *, size_t, loff_t) -> ssize_t {
    queued = iocb;
    seen = iocb->ki_filp;
    const bool started = thread_team_start(
        &team, 1, [](void *) { aio_complete(queued, 3, 0); }, nullptr);
    return started ? -EIOCBQUEUED : -EIO;
  };
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  struct kiocb iocb;
  init_sync_kiocb(&iocb, file.get());
  iocb.ki_pos = 0;
  EXPECT_EQ(file.ops()->aio_read(&iocb, nullptr, 4, 0), 3);
  EXPECT_EQ(seen, tarn_lower_file(file.get()));
  EXPECT_EQ(iocb.ki_filp, file.get());
  thread_team_wait(&team, 1);
}

// An asynchronous request has been done when the operation returns: its result is the count.
MODULE_CASE(file_requests, asynchronous_requests_are_done_on_return) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  open_file file("/mnt/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  kernel_ds_guard kernel_ds;
  struct kiocb iocb;
  init_sync_kiocb(&iocb, file.get());
  iocb.ki_key = 1;
  iocb.ki_pos = 2;
  EXPECT_FALSE(is_sync_kiocb(&iocb));
  EXPECT_EQ(file.ops()->aio_write(&iocb, reinterpret_cast<const char __user *>("XY"), 2, 2), 2);
  EXPECT_EQ(iocb.ki_pos, 4);
  EXPECT_EQ(iocb.ki_users, 1);
  EXPECT_EQ(daemon.next().op(), OX_OP_WRITE);
  char text[8] = {};
  iocb.ki_pos = 0;
  EXPECT_EQ(file.ops()->aio_read(&iocb, reinterpret_cast<char __user *>(text), 4, 0), 4);
  EXPECT_STREQ(text, "teXY");
  EXPECT_EQ(iocb.ki_pos, 4);
  EXPECT_EQ(iocb.ki_users, 1);
  do_flush(0);
}

MODULE_CASE(file_requests, sendfile_gives_the_pages_of_the_layer) {
  test_mount mount;
  test_buffer data(10000, 's');
  REQUIRE_EQ(test_put("/lower/f", ""), 0);
  {
    test_file lower("/lower/f", O_RDWR);
    EXPECT_EQ(lower.write(data.get(), 10000, 0), 10000);
  }
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  struct taken {
    struct address_space *mapping;
    unsigned long bytes, foreign, wrong;
  } taken = {file->f_mapping, 0, 0, 0};
  const read_actor_t take = [](read_descriptor_t *desc, struct page *page, unsigned long offset,
                               unsigned long size) -> int {
    auto *t = static_cast<struct taken *>(desc->arg.data);
    if (size > desc->count) size = desc->count;
    if (page->mapping != t->mapping) t->foreign++;
    const auto *text = static_cast<const char *>(page_address(page)) + offset;
    for (unsigned long i = 0; i < size; i++) t->wrong += text[i] != 's';
    t->bytes += size;
    desc->written += size;
    desc->count -= size;
    return static_cast<int>(size);
  };
  loff_t pos = 4000;
  EXPECT_EQ(file.ops()->sendfile(file.get(), &pos, 100000, take, &taken), 6000);
  EXPECT_EQ(pos, 10000);
  EXPECT_EQ(taken.bytes, 6000ul);
  EXPECT_EQ(taken.foreign, 0ul);
  EXPECT_EQ(taken.wrong, 0ul);
}

// Also a read that the layer's own cache serves is one of the lower file.
MODULE_CASE(file_requests, cached_read_touches_the_lower_access_time) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  EXPECT_TRUE(test_holds("/mnt/f", "text"));
  const test_walk upper("/mnt/f"), lower("/lower/f");
  EXPECT_EQ(upper.inode()->i_mapping->nrpages, 1ul);
  lower.inode()->i_atime.tv_sec = 1;
  EXPECT_TRUE(test_holds("/mnt/f", "text"));
  EXPECT_NE(lower.inode()->i_atime.tv_sec, 1);
}

// While one opener is inside the lower open, another has been through: the file that comes second
// is dropped (the end of the case would report it).
MODULE_CASE(file_requests, opener_that_comes_second_drops_its_lower_file) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  {
    lower_fops lower("/lower/f");
    static struct file *first;
    first = nullptr;
    lower.ops.open = [](struct inode *, struct file *) -> int {
      if (!first) {
        first = reinterpret_cast<struct file *>(1);  // for the open within this one
        first = filp_open("/mnt/f", O_RDONLY, 0);
      }
      return 0;
    };
    open_file second("/mnt/f", O_RDONLY);
    REQUIRE_TRUE(!IS_ERR(second.get()) && !IS_ERR(first));
    EXPECT_EQ(tarn_lower_file(second.get()), tarn_lower_file(first));
    EXPECT_EQ(atomic_read(&tarn_lower_file(first)->f_count), 1);
    filp_close(first, nullptr);
  }
  EXPECT_TRUE(test_holds("/mnt/f", "text"));
}

namespace {

// The position in a directory is the open's own, though all opens share the lower file.
void expect_own_places() {
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  REQUIRE_EQ(test_put("/lower/b", "x"), 1);
  open_file first("/mnt", O_RDONLY | O_DIRECTORY), second("/mnt", O_RDONLY | O_DIRECTORY);
  struct seen {
    int count, limit;
  };
  const filldir_t fill = [](void *arg, const char *, int, loff_t, ino_t, unsigned) -> int {
    auto *s = static_cast<struct seen *>(arg);
    if (s->count == s->limit) return -EINVAL;
    s->count++;
    return 0;
  };
  struct seen part = {0, 1}, all = {0, 100};
  EXPECT_EQ(vfs_readdir(first.get(), fill, &part), 0);
  EXPECT_EQ(part.count, 1);
  EXPECT_EQ(vfs_readdir(second.get(), fill, &all), 0);
  EXPECT_EQ(all.count, 4);
  struct seen rest = {0, 100};
  EXPECT_EQ(vfs_readdir(first.get(), fill, &rest), 0);
  EXPECT_EQ(rest.count, 3);
  open_file third("/mnt", O_RDONLY | O_DIRECTORY);
  struct seen again = {0, 100};
  EXPECT_EQ(vfs_readdir(third.get(), fill, &again), 0);
  EXPECT_EQ(again.count, 4);
}

}  // namespace

MODULE_CASE(file_requests, two_readers_of_a_directory_have_their_own_places) {
  test_mount mount;
  expect_own_places();
}

// The lower file keeps more of its place than f_pos.
MODULE_CASE(file_requests, two_readers_of_a_directory_over_nfs_have_their_own_places) {
  test_mount mount("nfs");
  expect_own_places();
}

// Each call that is passed down gets the lower file system's own objects and the caller's
// arguments, and its result comes back.
MODULE_CASE(file_requests, calls_that_pass_through_reach_the_lower_file) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  static struct {
    struct file *file;
    fl_owner_t owner;
    int fd, on, datasync;
    struct inode *inode;
    unsigned cmd;
    unsigned long arg;
    struct dentry *dentry;
  } seen;
  memset(&seen, 0, sizeof(seen));
  lower_fops lower("/lower/f");
  lower.ops.flush = [](struct file *file, fl_owner_t owner) -> int {
    seen.file = file;
    seen.owner = owner;
    return -EUCLEAN;
  };
  lower.ops.fasync = [](int fd, struct file *file, int on) -> int {
    seen.file = file;
    seen.fd = fd;
    seen.on = on;
    return -EUCLEAN;
  };
  lower.ops.ioctl = [](struct inode *inode, struct file *file, unsigned cmd,
                       unsigned long arg) -> int {
    seen.file = file;
    seen.inode = inode;
    seen.cmd = cmd;
    seen.arg = arg;
    return -EUCLEAN;
  };
  lower.ops.fsync = [](struct file *file, struct dentry *dentry, int datasync) -> int {
    seen.file = file;
    seen.dentry = dentry;
    seen.datasync = datasync;
    return -EUCLEAN;
  };
  open_file file("/mnt/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  struct dentry *dentry = file->f_dentry;
  struct file *below = tarn_lower_file(file.get());
  const auto owner = reinterpret_cast<fl_owner_t>(&seen);

  EXPECT_EQ(file.ops()->flush(file.get(), owner), -EUCLEAN);
  EXPECT_EQ(seen.file, below);
  EXPECT_EQ(seen.owner, owner);
  seen.file = nullptr;
  EXPECT_EQ(file.ops()->fasync(3, file.get(), 1), -EUCLEAN);
  EXPECT_EQ(seen.file, below);
  EXPECT_EQ(seen.fd, 3);
  EXPECT_EQ(seen.on, 1);
  seen.file = nullptr;
  EXPECT_EQ(file.ops()->ioctl(dentry->d_inode, file.get(), 7, 8), -EUCLEAN);
  EXPECT_EQ(seen.file, below);
  EXPECT_EQ(seen.inode, tarn_lower_inode(dentry->d_inode));
  EXPECT_EQ(seen.cmd, 7u);
  EXPECT_EQ(seen.arg, 8ul);
  seen.file = nullptr;
  EXPECT_EQ(file.ops()->fsync(file.get(), dentry, 1), -EUCLEAN);
  EXPECT_EQ(seen.file, below);
  EXPECT_EQ(seen.dentry, tarn_lower_dentry(dentry));
  EXPECT_EQ(seen.datasync, 1);
}

// A listing that fails leaves the place where the lower one has got to, and takes nothing over.
MODULE_CASE(file_requests, failed_listing_keeps_the_place_of_the_lower_file) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  lower_fops lower("/lower/d");
  lower.ops.readdir = [](struct file *file, void *, filldir_t) -> int {
    file->f_pos = 5;
    return -EIO;
  };
  open_file dir("/mnt/d", O_RDONLY | O_DIRECTORY);
  REQUIRE_TRUE(!IS_ERR(dir.get()));
  struct inode *inode = dir->f_dentry->d_inode;
  inode->i_atime.tv_sec = 4711;
  const auto fill = [](void *, const char *, int, loff_t, ino_t, unsigned) -> int { return 0; };
  EXPECT_EQ(dir.ops()->readdir(dir.get(), nullptr, fill), -EIO);
  EXPECT_EQ(dir->f_pos, 5);
  EXPECT_EQ(inode->i_atime.tv_sec, 4711);
}

// Only a read that succeeds touches the access time, be it of nothing.
MODULE_CASE(file_requests, failed_read_leaves_the_lower_access_time) {
  test_mount mount("nfs");
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  static ssize_t result;
  lower_fops lower("/lower/f");
  lower.ops.aio_read = [](struct kiocb *, char __user *, size_t, loff_t) -> ssize_t {
    return result;
  };
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  struct inode *inode = tarn_lower_inode(file->f_dentry->d_inode);
  inode->i_atime.tv_sec = 1;
  struct kiocb iocb;
  init_sync_kiocb(&iocb, file.get());
  iocb.ki_pos = 0;
  result = -EIO;
  EXPECT_EQ(file.ops()->aio_read(&iocb, nullptr, 4, 0), -EIO);
  EXPECT_EQ(inode->i_atime.tv_sec, 1);
  result = 0;
  EXPECT_EQ(file.ops()->aio_read(&iocb, nullptr, 4, 0), 0);
  EXPECT_NE(inode->i_atime.tv_sec, 1);
}

// Over NFS, a file without an aio_read of its own is read as over any other file system.
MODULE_CASE(file_requests, read_over_nfs_without_a_lower_aio_read_goes_through_the_page_cache) {
  test_mount mount("nfs");
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  lower_fops lower("/lower/f");
  lower.ops.aio_read = nullptr;
  lower.ops.read = [](struct file *, char __user *buf, size_t, loff_t *) -> ssize_t {
    return copy_to_user(buf, "read", 4) ? -EFAULT : 4;
  };
  EXPECT_TRUE(test_holds("/mnt/f", "read"));
  const test_walk upper("/mnt/f");
  EXPECT_EQ(upper.inode()->i_mapping->nrpages, 1ul);
}

MODULE_CASE(file_requests, states_that_cannot_be_are_bugs) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  static struct dentry *below;
  static struct file *file;
  {
    const test_walk lower("/lower/f");
    below = lower.dentry();
    EXPECT_REPORT(
        [] {
          const test_walk upper("/mnt/f");
          atomic_set(&below->d_count, 0);
          filp_open("/mnt/f", O_RDONLY, 0);
        },
        "BUG");
  }
  file = filp_open("/mnt/f", O_RDWR, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  EXPECT_REPORT(
      [] {
        struct kiocb iocb;
        init_sync_kiocb(&iocb, file);
        iocb.ki_pos = 1;
        file->f_op->aio_write(&iocb, nullptr, 0, 0);
      },
      "BUG");
  EXPECT_REPORT(
      [] {
        struct kiocb iocb;
        init_sync_kiocb(&iocb, file);
        tarn_file(file)->lower_file = nullptr;
        tarn_aops.direct_IO(READ, &iocb, nullptr, 0, 0);
      },
      "BUG");
  filp_close(file, nullptr);
}
