// SPDX-License-Identifier: GPL-2.0
// Requests that are asynchronous, or that the lower file system only queues: through the layer's
// page cache, straight to a lower file, and by the direct I/O that programs reach only when they
// set the flag while a call is under way.
#include "tests/ukern/open_file.h"
#include "tests/module/lower_kinds.h"
#include "tests/ukern/debug/submission.h"
#include "tests/ukern/threads.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_mm.h"

namespace {

constexpr unsigned kBlock = 512;
constexpr unsigned long long kCookie = 4321;

void complete_one(void *sb) {
  memfs_complete(static_cast<struct super_block *>(sb));
}

// The lower file system's device, which does one request that is queued.
class device {
 public:
  device() { EXPECT_TRUE(thread_team_start(&team_, 1, complete_one, lower_super())); }
  ~device() { thread_team_wait(&team_, 1); }
  device(const device &) = delete;
  device &operator=(const device &) = delete;

 private:
  struct ThreadTeam team_;
};

// Two blocks of 'a' and 'b', which are nowhere but on the lower file system's device.
void put_blocks(const char *path) {
  test_buffer blocks(2 * kBlock, 'a');
  memset(blocks.get() + kBlock, 'b', kBlock);
  {
    test_file file(path, O_CREAT | O_WRONLY);
    EXPECT_EQ(file.write(blocks.get(), 2 * kBlock, 0), 2l * kBlock);
  }
  uk_sync();
  uk_drop_caches();
  uk_drop_pagecache();
}

// The direct read that the layer's own reads never make.
ssize_t direct_read(struct kiocb *iocb) {
  iocb->ki_filp->f_flags |= O_DIRECT;
  return generic_file_aio_read(iocb, iocb->ki_buf, iocb->ki_left, iocb->ki_pos);
}

// As a program would that has other threads, sets O_DIRECT for a file that is being written: past
// the place where a write clears it, before the one where it is looked at.
class direct_meanwhile {
 public:
  explicit direct_meanwhile(struct file *file) {
    written = file;
    // In the layer's own table, which write-back goes on reading: it never dirties an inode.
    tarn_sops.dirty_inode = [](struct inode *) { written->f_flags |= O_DIRECT; };
    file->f_dentry->d_inode->i_mtime.tv_sec = 1;  // so that the write has a time to set
  }
  ~direct_meanwhile() { tarn_sops.dirty_inode = nullptr; }
  direct_meanwhile(const direct_meanwhile &) = delete;
  direct_meanwhile &operator=(const direct_meanwhile &) = delete;

 private:
  static struct file *written;
};
struct file *direct_meanwhile::written;

// A mount with a rule, a daemon and a file of two blocks that is open.
struct direct_mount {
  test_mount mount;
  test_daemon daemon;
  test_buffer data{2 * kBlock, 'N'};

  explicit direct_mount(const char *lower_options) : mount(lower_options) {
    put_blocks("/lower/f");
    EXPECT_EQ(install_rule('r', "/lower"), 0);
  }
  ~direct_mount() { do_flush(0); }

  long write(struct file *file, unsigned size, loff_t pos) {
    kernel_ds_guard kernel_ds;
    return vfs_write(file, static_cast<const char __user *>(data.get()), size, &pos);
  }
  void expect_captured(unsigned size, unsigned long long off) {
    const test_message &record = daemon.next();
    EXPECT_EQ(record.op(), OX_OP_WRITE);
    EXPECT_EQ(record.wr()->off, off);
    EXPECT_EQ(record.wr()->dlen2, size);
    expect_nothing_captured();
  }
  void expect_nothing_captured() { EXPECT_TRUE(daemon.idle()); }
};

// The bytes of a file that are not `mark`, of the `size` from `pos` on. What is direct passes the
// cache of the lower file by, so that must not have the page.
unsigned others(const char *path, char mark, unsigned size, unsigned long long pos) {
  uk_drop_pagecache();
  test_buffer seen(size);
  test_file file(path, O_RDONLY);
  EXPECT_EQ(file.read(seen.get(), size, pos), static_cast<long>(size));
  unsigned count = 0;
  for (unsigned i = 0; i < size; i++) count += seen[i] != mark;
  return count;
}

}  // namespace

// Whatever is below: one event for each, at once, with the count.
LOWER_CASE(asynchronous_requests) {
  put_blocks("/lower/d/f");
  open_file file("/mnt/d/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  submission program;
  test_buffer block(kBlock);
  {
    kernel_ds_guard kernel_ds;
    EXPECT_EQ(program.read(file.get(), block.get(), kBlock, kBlock, 1), 0);
    EXPECT_EQ(program.next().res, static_cast<long long>(kBlock));
    EXPECT_EQ(block[0], 'b');
    EXPECT_EQ(program.write(file.get(), "new", 3, 100, 2), 0);
    EXPECT_EQ(program.next().res, 3ll);
    EXPECT_EQ(program.read(file.get(), block.get(), kBlock, 10 * kBlock, 3), 0);
    EXPECT_EQ(program.next().res, 0ll);
  }
  EXPECT_FALSE(program.has_event());
  EXPECT_EQ(program.context()->reqs_active, 0);
  EXPECT_EQ(atomic_read(&file->f_count), 1);
  EXPECT_EQ(mount.daemon().next().op(), OX_OP_WRITE);
  EXPECT_TRUE(mount.daemon().idle());
}

// The lower direct_IO tells of the request itself, so that nobody above does it again.
LOWER_CASE(asynchronous_direct_read) {
  put_blocks("/lower/d/f");
  open_file file("/mnt/d/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  submission program;
  test_buffer block(kBlock);
  {
    kernel_ds_guard kernel_ds;
    EXPECT_EQ(program.submit(file.get(), block.get(), kBlock, kBlock, kCookie, direct_read), 0);
  }
  const struct io_event event = program.next();
  EXPECT_EQ(event.data, kCookie);
  if (mount.kind() == over_memfs_without_direct_io) {
    EXPECT_EQ(event.res, static_cast<long long>(-EINVAL));
  } else {
    EXPECT_EQ(event.res, static_cast<long long>(kBlock));
    EXPECT_EQ(block[0], 'b');
  }
  EXPECT_FALSE(program.has_event());
  EXPECT_EQ(program.context()->reqs_active, 0);
  EXPECT_EQ(atomic_read(&file->f_count), 1);
}

MODULE_CASE(async, queued_direct_read_is_told_by_the_lower_file_system) {
  direct_mount mount("queue");
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  submission program;
  test_buffer block(kBlock);
  {
    kernel_ds_guard kernel_ds;
    EXPECT_EQ(program.submit(file.get(), block.get(), kBlock, 0, kCookie, direct_read), 0);
  }
  EXPECT_FALSE(program.has_event());
  REQUIRE_EQ(program.context()->reqs_active, 1);
  const struct kiocb *queued =
      list_entry(program.context()->active_reqs.next, struct kiocb, ki_list);
  EXPECT_EQ(queued->ki_filp, file.get());
  EXPECT_EQ(queued->ki_users, 1);
  EXPECT_EQ(atomic_read(&file->f_count), 2);
  {
    const device device;
    const struct io_event event = program.next();
    EXPECT_EQ(event.res, static_cast<long long>(kBlock));
    EXPECT_EQ(event.data, kCookie);
  }
  EXPECT_EQ(block[kBlock - 1], 'a');
  EXPECT_EQ(atomic_read(&file->f_count), 1);
  EXPECT_EQ(atomic_read(&tarn_lower_file(file.get())->f_count), 1);
}

MODULE_CASE(async, queued_direct_read_is_waited_for_by_a_caller_that_waits) {
  direct_mount mount("queue");
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  test_buffer block(kBlock);
  const device device;
  kernel_ds_guard kernel_ds;
  file->f_flags |= O_DIRECT;
  loff_t pos = kBlock;
  EXPECT_EQ(generic_file_read(file.get(), static_cast<char __user *>(block.get()), kBlock, &pos),
            static_cast<long>(kBlock));
  EXPECT_EQ(block[0], 'b');
}

// Over NFS a read is the lower file's, whose queue the layer waits for.
MODULE_CASE(async, queued_read_of_the_lower_file_is_waited_for) {
  direct_mount mount("nfs,queue");
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  tarn_lower_file(file.get())->f_flags |= O_DIRECT;
  const test_walk lower("/lower/f");
  lower.inode()->i_atime.tv_sec = 1;
  test_buffer block(kBlock);
  const device device;
  kernel_ds_guard kernel_ds;
  loff_t pos = 0;
  EXPECT_EQ(vfs_read(file.get(), static_cast<char __user *>(block.get()), kBlock, &pos),
            static_cast<long>(kBlock));
  EXPECT_EQ(block[0], 'a');
  EXPECT_NE(lower.inode()->i_atime.tv_sec, 1);
}

// The layer waits for an asynchronous one as for a synchronous one: until nobody has a reference,
// the submission included, and what it then takes for the result is what the program has attached.
MODULE_CASE(async, queued_read_of_the_lower_file_holds_its_submission_up) {
  direct_mount mount("nfs,queue");
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  tarn_lower_file(file.get())->f_flags |= O_DIRECT;
  static struct task_struct *submitter;
  static struct kiocb *request;
  static long result;
  static int returned;
  returned = 0;
  submission program;
  test_buffer block(kBlock);
  static struct {
    submission *program;
    struct file *file;
    char *block;
  } given;
  given = {&program, file.get(), block.get()};
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(
      &team, 1,
      [](void *) {
        kernel_ds_guard kernel_ds;
        given.program->submit(
            given.file, given.block, kBlock, 0, kCookie, [](struct kiocb *iocb) -> ssize_t {
              submitter = current;
              request = iocb;
              result =
                  iocb->ki_filp->f_op->aio_read(iocb, iocb->ki_buf, iocb->ki_left, iocb->ki_pos);
              __atomic_store_n(&returned, 1, __ATOMIC_RELEASE);
              iocb->ki_users = 1;  // the reference that was taken from it
              return -EIOCBQUEUED;
            });
      },
      nullptr));
  memfs_complete(lower_super());
  EXPECT_EQ(program.next().res, static_cast<long long>(kBlock));
  const auto waits = [] {
    return __atomic_load_n(&submitter->state, __ATOMIC_ACQUIRE) == TASK_UNINTERRUPTIBLE;
  };
  while (!waits() && !__atomic_load_n(&returned, __ATOMIC_ACQUIRE)) msleep(1);
  EXPECT_EQ(__atomic_load_n(&returned, __ATOMIC_ACQUIRE), 0);
  EXPECT_EQ(__atomic_load_n(&request->ki_users, __ATOMIC_ACQUIRE), 1);
  __atomic_store_n(&request->ki_users, 0, __ATOMIC_RELEASE);
  wake_up_process(submitter);
  thread_team_wait(&team, 1);
  EXPECT_EQ(result, static_cast<long>(kCookie));
}

MODULE_CASE(async, write_that_appends_is_captured_where_it_landed) {
  direct_mount mount("");
  open_file file("/mnt/f", O_WRONLY | O_APPEND);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  submission program;
  {
    kernel_ds_guard kernel_ds;
    EXPECT_EQ(program.write(file.get(), "appended", 8, 5, 0), 0);
  }
  EXPECT_EQ(program.next().res, 8ll);
  mount.expect_captured(8, 2 * kBlock);
}

MODULE_CASE(async, write_that_becomes_direct_is_captured) {
  direct_mount mount("");
  open_file file("/mnt/f", O_WRONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  const direct_meanwhile direct(file.get());
  EXPECT_EQ(mount.write(file.get(), kBlock, kBlock), static_cast<long>(kBlock));
  EXPECT_EQ(memfs_calls(lower_super(), MEMFS_OP_DIRECT_IO), 1ul);
  mount.expect_captured(kBlock, kBlock);
  EXPECT_EQ(others("/lower/f", 'a', kBlock, 0), 0u);
  EXPECT_EQ(others("/lower/f", 'N', kBlock, kBlock), 0u);
}

// What the lower direct_IO left over goes through the page cache, and all of it is one write.
MODULE_CASE(async, rest_of_a_short_direct_write_goes_through_the_cache) {
  direct_mount mount("short");
  open_file file("/mnt/f", O_WRONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  {
    const direct_meanwhile direct(file.get());
    EXPECT_EQ(mount.write(file.get(), 2 * kBlock, 0), 2l * kBlock);
  }
  EXPECT_EQ(memfs_calls(lower_super(), MEMFS_OP_DIRECT_IO), 1ul);
  mount.expect_captured(2 * kBlock, 0);
  EXPECT_EQ(others("/lower/f", 'N', 2 * kBlock, 0), 0u);
}

// A write that the lower file system has only queued is no written count: nothing is captured.
MODULE_CASE(async, write_that_was_queued_is_done_but_not_captured) {
  direct_mount mount("queue");
  open_file file("/mnt/f", O_WRONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  {
    const device device;
    const direct_meanwhile direct(file.get());
    EXPECT_EQ(mount.write(file.get(), kBlock, 0), static_cast<long>(kBlock));
  }
  mount.expect_nothing_captured();
  EXPECT_EQ(others("/lower/f", 'N', kBlock, 0), 0u);

  submission program;
  {
    const direct_meanwhile direct(file.get());
    kernel_ds_guard kernel_ds;
    EXPECT_EQ(program.write(file.get(), mount.data.get(), kBlock, kBlock, kCookie), 0);
  }
  EXPECT_FALSE(program.has_event());
  EXPECT_FALSE(mutex_is_locked(&file->f_dentry->d_inode->i_mutex));
  memfs_complete(lower_super());
  EXPECT_EQ(program.next().res, static_cast<long long>(kBlock));
  mount.expect_nothing_captured();
  EXPECT_EQ(others("/lower/f", 'N', kBlock, kBlock), 0u);
}

// One that was direct and done at once is the lower file system's to tell, and not captured either.
MODULE_CASE(async, asynchronous_write_that_becomes_direct_is_not_captured) {
  direct_mount mount("");
  open_file file("/mnt/f", O_WRONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  submission program;
  {
    const direct_meanwhile direct(file.get());
    kernel_ds_guard kernel_ds;
    EXPECT_EQ(program.write(file.get(), mount.data.get(), kBlock, 0, kCookie), 0);
  }
  EXPECT_EQ(program.next().res, static_cast<long long>(kBlock));
  EXPECT_FALSE(program.has_event());
  mount.expect_nothing_captured();
  EXPECT_EQ(others("/lower/f", 'N', kBlock, 0), 0u);
}

MODULE_CASE(async, write_that_becomes_direct_needs_it_below) {
  direct_mount mount("nodirect");
  open_file file("/mnt/f", O_WRONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  {
    const direct_meanwhile direct(file.get());
    EXPECT_EQ(mount.write(file.get(), kBlock, 0), static_cast<long>(-EINVAL));
  }
  EXPECT_TRUE(case_logged("tarn_direct_IO: lower_file not support O_DIRECT yet"));
  mount.expect_nothing_captured();
  EXPECT_EQ(mount.write(file.get(), kBlock, 0), static_cast<long>(kBlock));
  mount.expect_captured(kBlock, 0);
}
