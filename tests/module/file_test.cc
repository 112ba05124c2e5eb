// SPDX-License-Identifier: GPL-2.0
// The file operations: the shared lower file, what is passed to it, reads through the page cache,
// and the captured write.
#include "tests/module/kit/mount.h"
#include "tests/ukern/open_file.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_fault.h"

namespace {

constexpr unsigned long largest_write = 52428800;

}  // namespace

MODULE_CASE(file, tables_have_exactly_their_slots) {
  EXPECT_EQ(tarn_main_fops.llseek, generic_file_llseek);
  EXPECT_EQ(tarn_main_fops.read, do_sync_read);
  EXPECT_EQ(tarn_main_fops.write, do_sync_write);
  EXPECT_EQ(tarn_main_fops.sendfile, generic_file_sendfile);
  EXPECT_NE(tarn_main_fops.aio_read, nullptr);
  EXPECT_NE(tarn_main_fops.aio_write, nullptr);
  EXPECT_EQ(test_filled_slots(tarn_main_fops), 14);
  const struct file_operations *const tables[] = {&tarn_main_fops, &tarn_dir_fops};
  for (const struct file_operations *table : tables) {
    EXPECT_NE(table->readdir, nullptr);
    EXPECT_EQ(table->readdir, tarn_main_fops.readdir);
    EXPECT_NE(table->ioctl, nullptr);
    EXPECT_EQ(table->ioctl, tarn_main_fops.ioctl);
    EXPECT_EQ(table->mmap, generic_file_mmap);
    EXPECT_NE(table->open, nullptr);
    EXPECT_EQ(table->open, tarn_main_fops.open);
    EXPECT_NE(table->flush, nullptr);
    EXPECT_EQ(table->flush, tarn_main_fops.flush);
    EXPECT_NE(table->release, nullptr);
    EXPECT_EQ(table->release, tarn_main_fops.release);
    EXPECT_NE(table->fsync, nullptr);
    EXPECT_EQ(table->fsync, tarn_main_fops.fsync);
    EXPECT_NE(table->fasync, nullptr);
    EXPECT_EQ(table->fasync, tarn_main_fops.fasync);
  }
  EXPECT_EQ(test_filled_slots(tarn_dir_fops), 8);
}

MODULE_CASE(file, all_opens_share_one_lower_file_that_is_read_write) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  open_file first("/mnt/f", O_RDONLY);
  open_file second("/mnt/f", O_WRONLY);
  struct file *lower = tarn_lower_file(first.get());
  EXPECT_EQ(tarn_lower_file(second.get()), lower);
  EXPECT_EQ(tarn_inode(first->f_dentry->d_inode)->lower_file, lower);
  EXPECT_EQ(lower->f_flags, O_RDWR | O_LARGEFILE);
  EXPECT_EQ(lower->f_mode & (FMODE_READ | FMODE_WRITE), FMODE_READ | FMODE_WRITE);
}

MODULE_CASE(file, read_only_lower_file_is_opened_read_write) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  {
    const test_walk lower("/lower/f");
    lower.inode()->i_mode = S_IFREG | 0444;
  }
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!(IS_ERR(file.get())));
  EXPECT_EQ(tarn_lower_file(file.get())->f_flags & O_ACCMODE, O_RDWR);
}

MODULE_CASE(file, lower_file_outlives_the_open_and_goes_with_the_inode) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  {
    const test_walk walk("/mnt/f");
    EXPECT_NE(tarn_inode(walk.inode())->lower_file, nullptr);
  }
  uk_drop_caches();
  const test_walk walk("/mnt/f");
  EXPECT_EQ(tarn_inode(walk.inode())->lower_file, nullptr);
}

MODULE_CASE(file, every_failing_allocation_of_an_open_is_undone) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  for (unsigned long n = 1;; n++) {
    uk_drop_caches();
    uk_fault_arm(n);
    int rc;
    {
      test_file file("/mnt/f", O_RDONLY);
      rc = file.error();
    }
    const bool reached = uk_fault_count() >= n;
    uk_fault_arm(0);
    EXPECT_TRUE(rc == 0 || rc == -ENOMEM || rc == -ENFILE || rc == -EACCES);
    if (!reached) break;
  }
  EXPECT_TRUE(test_holds("/mnt/f", "x"));
}

MODULE_CASE(file, refused_lower_open_is_the_open_s_error) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  atomic_set(&lower.inode()->i_writecount, -1);  // since the lookup
  EXPECT_EQ(test_file("/mnt/f", O_RDONLY).error(), -ETXTBSY);
  EXPECT_EQ(tarn_inode(upper.inode())->lower_file, nullptr);
  atomic_set(&lower.inode()->i_writecount, 0);
  EXPECT_EQ(test_file("/mnt/f", O_RDONLY).error(), 0);
}

MODULE_CASE(file, directory_lists_the_lower_names) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  REQUIRE_EQ(test_mkdir("/lower/b"), 0);
  test_file dir("/mnt", O_RDONLY | O_DIRECTORY);
  REQUIRE_EQ(dir.error(), 0);
  struct seen {
    int a, b, all;
  } seen = {0, 0, 0};
  const auto fill = [](void *arg, const char *name, unsigned long long, unsigned,
                       unsigned long long) -> int {
    auto *s = static_cast<struct seen *>(arg);
    s->a += !strcmp(name, "a");
    s->b += !strcmp(name, "b");
    s->all++;
    return 0;
  };
  EXPECT_EQ(uk_readdir(dir.get(), 0, fill, &seen), 0);
  EXPECT_EQ(seen.a, 1);
  EXPECT_EQ(seen.b, 1);
  EXPECT_EQ(seen.all, 4);
}

MODULE_CASE(file, reading_a_directory_takes_over_its_access_time) {
  test_mount mount;
  open_file dir("/mnt", O_RDONLY | O_DIRECTORY);
  const test_walk lower("/lower");
  lower.inode()->i_atime.tv_sec = 4711;
  lower.inode()->i_flags |= S_NOATIME;
  const auto fill = [](void *, const char *, int, loff_t, ino_t, unsigned) -> int { return 0; };
  EXPECT_EQ(dir.ops()->readdir(dir.get(), nullptr, fill), 0);
  EXPECT_EQ(dir->f_dentry->d_inode->i_atime.tv_sec, 4711);
  EXPECT_EQ(dir->f_pos, tarn_lower_file(dir.get())->f_pos);
}

MODULE_CASE(file, ioctl_without_a_lower_one_is_notty) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  open_file file("/mnt/f", O_RDWR);
  EXPECT_EQ(file.ops()->ioctl(file->f_dentry->d_inode, file.get(), 1, 2), -ENOTTY);
}

MODULE_CASE(file, flush_and_fasync_without_lower_ones_are_0) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  open_file file("/mnt/f", O_RDWR);
  EXPECT_EQ(file.ops()->flush(file.get(), nullptr), 0);
  EXPECT_EQ(file.ops()->fasync(3, file.get(), 1), 0);
}

MODULE_CASE(file, large_write_is_cut_to_50_mib_and_captured_to_the_byte) {
  replicated r;
  constexpr unsigned long asked = 62914560;  // 60 MiB
  static char data[asked];
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(r.daemon.drain(), 2);
  EXPECT_EQ(file.write(data, asked, 0), static_cast<long>(largest_write));
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/f", &stat), 0);
  EXPECT_EQ(stat.size, static_cast<unsigned long long>(largest_write));

  unsigned long long captured = 0;
  unsigned pages = 0;
  for (;;) {
    const test_message &record = r.daemon.next();
    if (record.type() < 0) break;
    EXPECT_EQ(record.type(), OX_OP_WRITE);
    EXPECT_EQ(record.wr()->off, captured);
    captured += record.wr()->dlen2;
    pages++;
    if (record.wr()->pagenr + 1 == record.wr()->pages) EXPECT_EQ(pages, record.wr()->pages);
  }
  EXPECT_EQ(captured, static_cast<unsigned long long>(largest_write));
}

MODULE_CASE(file, write_beyond_the_size_limit_is_not_captured) {
  replicated r;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(r.daemon.drain(), 2);
  const test_walk upper("/mnt/f");
  upper.dentry()->d_sb->s_maxbytes = 4096;
  EXPECT_EQ(file.write("x", 1, 4096), -EFBIG);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(file, write_of_nothing_is_not_captured) {
  replicated r;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(r.daemon.drain(), 2);
  EXPECT_EQ(file.write("x", 0, 0), 0);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(file, write_from_a_bad_address_is_refused_and_not_captured) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  open_file file("/mnt/f", O_RDWR);
  loff_t pos = 0;
  auto *kernel_text = reinterpret_cast<const char __user *>("kernel memory");
  EXPECT_EQ(vfs_write(file.get(), kernel_text, 4, &pos), -EFAULT);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(file, small_write_is_captured_with_its_place_and_bytes) {
  replicated r;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(r.daemon.drain(), 2);
  EXPECT_EQ(file.write("captured", 8, 3), 8);
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.type(), OX_OP_COLLECT);
  EXPECT_EQ(record.op(), OX_OP_WRITE);
  EXPECT_EQ(record.wr()->off, 3ull);
  EXPECT_EQ(record.wr()->dlen2, 8u);
  EXPECT_STREQ(record.wr()->data, "/lower/f");
  EXPECT_EQ(memcmp(record.wr()->data + record.wr()->dlen1, "captured", 8), 0);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(file, appending_write_is_captured_where_it_landed) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "12345"), 5);
  test_file file("/mnt/f", O_WRONLY | O_APPEND);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("end", 3, 1), 3);
  EXPECT_TRUE(test_holds("/lower/f", "12345end"));
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_WRITE);
  EXPECT_EQ(record.wr()->off, 5ull);
}

MODULE_CASE(file, direct_flag_is_cleared_by_the_first_read_or_write) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  open_file reader("/mnt/f", O_RDWR | O_DIRECT);
  open_file writer("/mnt/f", O_RDWR | O_DIRECT);
  REQUIRE_TRUE(!(IS_ERR(reader.get()) || IS_ERR(writer.get())));
  kernel_ds_guard kernel_ds;
  char text[8] = {};
  loff_t pos = 0;
  EXPECT_EQ(vfs_read(reader.get(), reinterpret_cast<char __user *>(text), 4, &pos), 4);
  EXPECT_STREQ(text, "text");
  EXPECT_EQ(reader->f_flags & O_DIRECT, 0u);
  pos = 0;
  EXPECT_EQ(vfs_write(writer.get(), reinterpret_cast<const char __user *>("T"), 1, &pos), 1);
  EXPECT_EQ(writer->f_flags & O_DIRECT, 0u);
  EXPECT_TRUE(test_holds("/lower/f", "Text"));
}

MODULE_CASE(file, read_touches_the_lower_access_time) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  const test_walk lower("/lower/f");
  lower.inode()->i_atime.tv_sec = 1;
  EXPECT_TRUE(test_holds("/mnt/f", "text"));
  EXPECT_NE(lower.inode()->i_atime.tv_sec, 1);
}

MODULE_CASE(file, synchronous_write_works) {
  test_mount mount;
  test_file file("/mnt/f", O_CREAT | O_RDWR | O_SYNC);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("sync", 4, 0), 4);
  EXPECT_TRUE(test_holds("/lower/f", "sync"));
}

MODULE_CASE(file, writers_of_two_opens_see_each_other_s_bytes) {
  test_mount mount;
  test_file first("/mnt/f", O_CREAT | O_RDWR);
  test_file second("/mnt/f", O_RDWR);
  EXPECT_EQ(first.write("aaaa", 4, 0), 4);
  EXPECT_EQ(second.write("bb", 2, 1), 2);
  char text[8] = {};
  EXPECT_EQ(first.read(text, 7, 0), 4);
  EXPECT_STREQ(text, "abba");
}

// A write under no rule takes no memory for capture but the path's buffer and the hit array.
MODULE_CASE(file, write_under_no_rule_allocates_two_buffers_for_capture) {
  test_mount mount;
  test_daemon daemon;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(file.write("first", 5, 0), 5);
  EXPECT_EQ(install_rule(1, "/elsewhere"), 0);
  uk_fault_arm(0);
  EXPECT_EQ(file.write("again", 5, 0), 5);
  EXPECT_EQ(uk_fault_count(), 2ul);
  EXPECT_TRUE(daemon.idle());
}

MODULE_CASE(file, fsync_without_a_lower_one_is_invalid) {
  test_mount mount("nofsync");
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  test_file file("/mnt/f", O_RDWR);
  EXPECT_EQ(uk_fsync(file.get(), 0), -EINVAL);
}

// The operation is the one of the lower inode, whatever table its open file has.
MODULE_CASE(file, fsync_is_that_of_the_lower_inode) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk lower("/lower/f");
  open_file file("/mnt/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  struct file *lower_file = tarn_lower_file(file.get());
  static struct {
    struct file *file;
    struct dentry *dentry;
    int datasync;
    bool locked;
  } asked;
  const struct file_operations *own = lower.inode()->i_fop, *own_of_file = lower_file->f_op;
  struct file_operations of_inode = *own, of_file = *own_of_file;
  of_inode.fsync = [](struct file *asked_file, struct dentry *dentry, int datasync) -> int {
    asked = {asked_file, dentry, datasync, mutex_is_locked(&dentry->d_inode->i_mutex) != 0};
    return -EUCLEAN;
  };
  of_file.fsync = [](struct file *, struct dentry *, int) -> int { return -EBADMSG; };
  lower.inode()->i_fop = &of_inode;
  lower_file->f_op = &of_file;
  for (int datasync = 0; datasync <= 1; datasync++) {
    asked = {};
    EXPECT_EQ(file.ops()->fsync(file.get(), file->f_dentry, datasync), -EUCLEAN);
    EXPECT_EQ(asked.file, lower_file);
    EXPECT_EQ(asked.dentry, lower.dentry());
    EXPECT_EQ(asked.datasync, datasync);
    EXPECT_TRUE(asked.locked);
  }
  of_file.fsync = nullptr;
  EXPECT_EQ(file.ops()->fsync(file.get(), file->f_dentry, 0), -EUCLEAN);
  of_file.fsync = own_of_file->fsync;
  of_inode.fsync = nullptr;
  EXPECT_EQ(file.ops()->fsync(file.get(), file->f_dentry, 0), -EINVAL);
  lower.inode()->i_fop = own;
  lower_file->f_op = own_of_file;
}

MODULE_CASE(file, fsync_reaches_the_lower_file) {
  test_mount mount;
  const test_walk lower("/lower");
  struct super_block *sb = lower.dentry()->d_sb;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(uk_fsync(file.get(), 0), 0);
  EXPECT_EQ(memfs_calls(sb, MEMFS_OP_FSYNC), 1ul);
  memfs_fail(sb, MEMFS_OP_FSYNC, -EIO, 1);
  EXPECT_EQ(uk_fsync(file.get(), 0), -EIO);
}

MODULE_CASE(file, read_over_nfs_goes_to_the_lower_file) {
  test_mount mount("nfs");
  REQUIRE_EQ(test_put("/lower/f", "remote"), 6);
  EXPECT_TRUE(test_holds("/mnt/f", "remote"));
  const test_walk upper("/mnt/f");
  EXPECT_EQ(upper.inode()->i_mapping->nrpages, 0ul);
}

MODULE_CASE(file, read_over_anything_else_goes_through_the_page_cache) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "local"), 5);
  EXPECT_TRUE(test_holds("/mnt/f", "local"));
  const test_walk upper("/mnt/f");
  EXPECT_EQ(upper.inode()->i_mapping->nrpages, 1ul);
}

MODULE_CASE(file, full_lower_file_system_fails_the_write_uncaptured) {
  test_mount mount("size=64k");
  test_daemon daemon;
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  test_buffer data(131072, 'f');
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(daemon.drain(), 2);
  const long first = file.write(data.get(), 131072, 0);
  EXPECT_LE(first, 65536);
  EXPECT_LT(0, first);
  daemon.drain();
  EXPECT_EQ(file.write(data.get(), 4096, 65536), -EINVAL);
  EXPECT_TRUE(daemon.idle());
  do_flush(0);
}

MODULE_CASE(file, failed_readdir_is_passed_on_with_the_position) {
  test_mount mount;
  open_file dir("/mnt", O_RDONLY | O_DIRECTORY);
  const test_walk lower("/lower");
  memfs_fail(lower.dentry()->d_sb, MEMFS_OP_READDIR, -EIO, 1);
  dir->f_pos = 2;
  const auto fill = [](void *, const char *, int, loff_t, ino_t, unsigned) -> int { return 0; };
  EXPECT_EQ(vfs_readdir(dir.get(), fill, nullptr), -EIO);
  EXPECT_EQ(dir->f_pos, tarn_lower_file(dir.get())->f_pos);
}

namespace {

struct opener {
  struct completion done;
  int error;
};

int open_and_read(void *data) {
  auto *o = static_cast<struct opener *>(data);
  o->error = 0;
  for (int i = 0; i < 50 && !o->error; i++) {
    struct file *file = filp_open("/mnt/f", O_RDWR, 0);
    if (IS_ERR(file)) {
      o->error = static_cast<int>(PTR_ERR(file));
      break;
    }
    char text[8];
    loff_t pos = 0;
    if (vfs_read(file, reinterpret_cast<char __user *>(text), 5, &pos) != 5) o->error = -EIO;
    filp_close(file, nullptr);
  }
  complete(&o->done);
  return 0;
}

}  // namespace

// The first opener's lower file stays; a loser's is dropped (what is lost is reported at the end of
// the case).
MODULE_CASE(file, openers_at_the_same_time_end_up_with_one_lower_file) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "lower"), 5);
  static struct opener openers[4];
  for (struct opener &o : openers) {
    init_completion(&o.done);
    struct task_struct *task = kthread_run(open_and_read, &o, "opener");
    REQUIRE_TRUE(!IS_ERR(task));
  }
  for (int i = 0; i < 50; i++) uk_drop_caches();
  for (struct opener &o : openers) {
    wait_for_completion(&o.done);
    EXPECT_EQ(o.error, 0);
  }
}
