// SPDX-License-Identifier: GPL-2.0
// What the upper objects take over from the lower ones, and when; what they keep of their own.
#include "tests/module/kit/mount.h"
#include "tests/ukern/open_file.h"

namespace {

constexpr long stale = 1;  // what an upper field holds that is to be taken over

void make_stale(struct inode *inode) {
  inode->i_atime.tv_sec = inode->i_mtime.tv_sec = inode->i_ctime.tv_sec = stale;
  i_size_write(inode, stale);
  inode->i_blocks = stale;
}

void expect_times(const struct inode *upper, const struct inode *lower) {
  EXPECT_EQ(upper->i_atime.tv_sec, lower->i_atime.tv_sec);
  EXPECT_EQ(upper->i_mtime.tv_sec, lower->i_mtime.tv_sec);
  EXPECT_EQ(upper->i_ctime.tv_sec, lower->i_ctime.tv_sec);
  EXPECT_NE(upper->i_mtime.tv_sec, stale);
}

// A name to make below /mnt, its directory locked, as the VFS hands it to the operations.
class fresh_name : public new_name {
 public:
  explicit fresh_name(const char *path) : new_name(path, 1) {
    EXPECT_EQ(error(), 0);
    make_stale(dir());
  }
};

void expect_times_and_size(const fresh_name &name) {
  struct inode *lower = tarn_lower_inode(name.dir());
  expect_times(name.dir(), lower);
  EXPECT_EQ(i_size_read(name.dir()), i_size_read(lower));
  EXPECT_EQ(name.dir()->i_blocks, lower->i_blocks);
}

}  // namespace

MODULE_CASE(refresh, creations_give_the_directory_its_times_and_size) {
  test_mount mount;
  {
    fresh_name name("/mnt/file");
    EXPECT_EQ(tarn_dir_iops.create(name.dir(), name.dentry(), S_IFREG | 0644, name.nd()), 0);
    expect_times_and_size(name);
  }
  {
    fresh_name name("/mnt/dir");
    EXPECT_EQ(tarn_dir_iops.mkdir(name.dir(), name.dentry(), 0755), 0);
    expect_times_and_size(name);
  }
  {
    fresh_name name("/mnt/fifo");
    EXPECT_EQ(tarn_dir_iops.mknod(name.dir(), name.dentry(), S_IFIFO | 0600, 0), 0);
    expect_times_and_size(name);
  }
  {
    fresh_name name("/mnt/symlink");
    EXPECT_EQ(tarn_dir_iops.symlink(name.dir(), name.dentry(), "to"), 0);
    expect_times_and_size(name);
  }
  const test_walk old("/mnt/file");
  fresh_name name("/mnt/link");
  EXPECT_EQ(tarn_dir_iops.link(old.dentry(), name.dir(), name.dentry()), 0);
  expect_times_and_size(name);
}

// A lower file system may leave the inode of what it has made to the next lookup.
MODULE_CASE(refresh, creation_without_a_lower_inode_is_left_to_the_next_lookup) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  const test_walk dir("/mnt"), old("/mnt/f");
  struct inode *lower = tarn_lower_inode(dir.inode());
  struct inode_operations *own = lower->i_op;
  struct inode_operations lazy = *own;
  lazy.mkdir = [](struct inode *, struct dentry *, int) -> int { return 0; };
  lazy.mknod = [](struct inode *, struct dentry *, int, dev_t) -> int { return 0; };
  lazy.symlink = [](struct inode *, struct dentry *, const char *) -> int { return 0; };
  lazy.link = [](struct dentry *, struct inode *, struct dentry *) -> int { return 0; };
  lower->i_op = &lazy;
  int (*const makers[])(struct inode *, struct dentry *, struct dentry *) = {
      [](struct inode *in, struct dentry *name, struct dentry *) {
        return tarn_dir_iops.mkdir(in, name, 0755);
      },
      [](struct inode *in, struct dentry *name, struct dentry *) {
        return tarn_dir_iops.mknod(in, name, S_IFIFO | 0600, 0);
      },
      [](struct inode *in, struct dentry *name, struct dentry *) {
        return tarn_dir_iops.symlink(in, name, "to");
      },
      [](struct inode *in, struct dentry *name, struct dentry *file) {
        return tarn_dir_iops.link(file, in, name);
      },
  };
  for (const auto make : makers) {
    fresh_name name("/mnt/new");
    EXPECT_EQ(make(name.dir(), name.dentry(), old.dentry()), 0);
    EXPECT_EQ(name.dentry()->d_inode, nullptr);
    EXPECT_TRUE(d_unhashed(name.dentry()));
    EXPECT_EQ(name.dir()->i_mtime.tv_sec, stale);
  }
  lower->i_op = own;
  EXPECT_TRUE(daemon.idle());
  do_flush(0);
}

// The size is that from before the link, the number of names the lower inode's.
MODULE_CASE(refresh, link_keeps_the_size_and_takes_the_number_of_names) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  const test_walk old("/mnt/f");
  fresh_name name("/mnt/link");
  old.inode()->i_nlink = 99;
  i_size_write(old.inode(), 1234);
  EXPECT_EQ(tarn_dir_iops.link(old.dentry(), name.dir(), name.dentry()), 0);
  EXPECT_EQ(old.inode()->i_nlink, 2u);
  EXPECT_EQ(i_size_read(old.inode()), 1234);
  i_size_write(old.inode(), 4);
}

MODULE_CASE(refresh, removals_give_the_directory_its_times_alone) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  const test_walk dir("/mnt"), file("/mnt/f"), sub("/mnt/d");
  struct inode *lower = tarn_lower_inode(dir.inode());
  mutex_guard parent(dir.inode()->i_mutex, I_MUTEX_PARENT);

  make_stale(dir.inode());
  file.inode()->i_ctime.tv_sec = stale;
  EXPECT_EQ(tarn_dir_iops.unlink(dir.inode(), file.dentry()), 0);
  expect_times(dir.inode(), lower);
  EXPECT_EQ(i_size_read(dir.inode()), stale);
  EXPECT_EQ(file.inode()->i_ctime.tv_sec, dir.inode()->i_ctime.tv_sec);
  EXPECT_TRUE(d_unhashed(file.dentry()));

  make_stale(dir.inode());
  EXPECT_EQ(tarn_dir_iops.rmdir(dir.inode(), sub.dentry()), 0);
  expect_times(dir.inode(), lower);
  EXPECT_EQ(i_size_read(dir.inode()), stale);
  EXPECT_TRUE(d_unhashed(sub.dentry()));
}

// Also where nothing was removed.
MODULE_CASE(refresh, refused_rmdir_gives_the_directory_its_times_and_links) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  const test_walk dir("/mnt"), sub("/mnt/d");
  mutex_guard parent(dir.inode()->i_mutex, I_MUTEX_PARENT);
  make_stale(dir.inode());
  dir.inode()->i_nlink = 99;
  EXPECT_EQ(tarn_dir_iops.rmdir(dir.inode(), sub.dentry()), -ENOTEMPTY);
  expect_times(dir.inode(), tarn_lower_inode(dir.inode()));
  EXPECT_EQ(dir.inode()->i_nlink, tarn_lower_inode(dir.inode())->i_nlink);
  EXPECT_FALSE(d_unhashed(sub.dentry()));
}

MODULE_CASE(refresh, lookup_and_attribute_changes_take_every_attribute) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  const test_walk lower("/lower/f");
  lower.inode()->i_blocks = 77;
  lower.inode()->i_blkbits = 9;
  lower.inode()->i_rdev = 9;
  lower.inode()->i_flags = S_NOATIME;
  const test_walk upper("/mnt/f");
  EXPECT_EQ(upper.inode()->i_blocks, 77);
  EXPECT_EQ(upper.inode()->i_blkbits, 9u);
  EXPECT_EQ(upper.inode()->i_rdev, 9u);
  EXPECT_EQ(upper.inode()->i_flags, static_cast<unsigned>(S_NOATIME));
  EXPECT_EQ(upper.inode()->i_version, 1ul);
  lower.inode()->i_blocks = 78;
  lower.inode()->i_blkbits = 10;
  lower.inode()->i_rdev = 0;
  lower.inode()->i_flags = 0;
  struct iattr ia;
  memset(&ia, 0, sizeof(ia));
  ia.ia_valid = ATTR_MODE;
  ia.ia_mode = S_IFREG | 0600;
  {
    mutex_guard guard(upper.inode()->i_mutex);
    EXPECT_EQ(tarn_main_iops.setattr(upper.dentry(), &ia), 0);
  }
  EXPECT_EQ(upper.inode()->i_blocks, 78);
  EXPECT_EQ(upper.inode()->i_blkbits, 10u);
  EXPECT_EQ(upper.inode()->i_rdev, 0u);
  EXPECT_EQ(upper.inode()->i_flags, 0u);
  lower.inode()->i_blkbits = PAGE_CACHE_SHIFT;
}

// Pages that are only partly read from below hold nobody else's memory; the mask of a mapping is
// for whoever allocates by it, and not every allocator takes a wish for zeros.
MODULE_CASE(refresh, new_pages_are_empty) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  const test_walk upper("/mnt/f");
  EXPECT_FALSE(mapping_gfp_mask(upper.inode()->i_mapping) & __GFP_ZERO);
  const test_file file("/mnt/f", O_RDWR);
  struct page *page = find_or_create_page(upper.inode()->i_mapping, 0, GFP_KERNEL);
  REQUIRE_TRUE(page != nullptr);
  memset(page_address(page), 'x', PAGE_SIZE);
  EXPECT_EQ(tarn_aops.readpage(nullptr, page), 0);
  const char *text = static_cast<const char *>(page_address(page));
  EXPECT_EQ(memcmp(text, "text", 4), 0);
  for (unsigned long i = 4; i < PAGE_SIZE; i++) EXPECT_EQ(text[i], 0);
  page_cache_release(page);
}

MODULE_CASE(refresh, super_block_takes_the_lower_device_and_keeps_its_own_number) {
  REQUIRE_EQ(test_mkdir("/lower"), 0);
  REQUIRE_EQ(test_mkdir("/mnt"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/lower", "memfs", 0, nullptr), 0);
  struct super_block *const below = lower_super();
  below->s_bdev = reinterpret_cast<struct block_device *>(&below->s_bdev);
  dev_t numbers[2];
  for (dev_t &number : numbers) {
    REQUIRE_EQ(uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr), 0);
    {
      const test_walk upper("/mnt");
      struct super_block *above = upper.dentry()->d_sb;
      EXPECT_EQ(above->s_bdev, below->s_bdev);
      above->s_bdev = nullptr;
      number = above->s_dev;
    }
    EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  }
  below->s_bdev = nullptr;
  // The first mount's number has not come back.
  EXPECT_NE(numbers[0], numbers[1]);
  EXPECT_EQ(uk_fs_umount("/lower", 0), 0);
}

MODULE_CASE(refresh, put_super_leaves_no_record) {
  struct super_block *sb =
      static_cast<struct super_block *>(kmalloc(sizeof(struct super_block), GFP_KERNEL));
  REQUIRE_TRUE(sb);
  sb->s_fs_info = kmem_cache_alloc(tarn_sb_info_cache, GFP_KERNEL);
  tarn_sops.put_super(sb);
  EXPECT_EQ(sb->s_fs_info, nullptr);
  kfree(sb);
}

// The lower name leaves the cache with the upper inode.
MODULE_CASE(refresh, end_of_an_inode_drops_the_lower_name) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  const test_walk lower("/lower/f");
  EXPECT_TRUE(test_holds("/mnt/f", "text"));
  EXPECT_FALSE(d_unhashed(lower.dentry()));
  uk_drop_caches();
  EXPECT_TRUE(d_unhashed(lower.dentry()));
}

// A lower file whose dentry has lost its inode is left as it is.
MODULE_CASE(refresh, end_of_an_inode_leaves_a_lower_file_without_an_inode) {
  test_mount mount;
  const test_walk upper("/mnt");
  struct inode *inode = tarn_sops.alloc_inode(upper.dentry()->d_sb);
  REQUIRE_TRUE(inode);
  static struct dentry dentry;
  static struct file file;
  file.f_dentry = &dentry;
  atomic_set(&file.f_count, 1);
  atomic_set(&dentry.d_count, 1);
  tarn_inode(inode)->lower_file = &file;
  tarn_sops.destroy_inode(inode);
  EXPECT_EQ(atomic_read(&file.f_count), 1);
  EXPECT_EQ(atomic_read(&dentry.d_count), 1);
}

MODULE_CASE(refresh, lower_file_may_be_large) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  open_file file("/mnt/f", O_RDONLY);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  EXPECT_EQ(tarn_lower_file(file.get())->f_flags, static_cast<unsigned>(O_RDWR | O_LARGEFILE));
}

MODULE_CASE(refresh, write_updates_the_upper_times_and_refuses_a_bad_segment) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  open_file file("/mnt/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  struct inode *inode = file->f_dentry->d_inode;
  struct kiocb iocb;
  init_sync_kiocb(&iocb, file.get());
  iocb.ki_pos = 0;
  const auto *kernel_text = reinterpret_cast<const char __user *>("kernel memory");
  EXPECT_EQ(file.ops()->aio_write(&iocb, kernel_text, 4, 0), -EFAULT);
  EXPECT_FALSE(mutex_is_locked(&inode->i_mutex));
  kernel_ds_guard kernel_ds;
  inode->i_mtime.tv_sec = inode->i_ctime.tv_sec = stale;
  EXPECT_EQ(file.ops()->aio_write(&iocb, kernel_text, 4, 0), 4);
  EXPECT_NE(inode->i_mtime.tv_sec, stale);
  EXPECT_NE(inode->i_ctime.tv_sec, stale);
}

// The device that a task writes to, which decides how long it may be held up, is the upper file's
// for the time of the write.
MODULE_CASE(refresh, write_names_the_upper_device) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  open_file file("/mnt/f", O_RDWR);
  REQUIRE_TRUE(!IS_ERR(file.get()));
  struct file *lower = tarn_lower_file(file.get());
  const struct file_operations *own = lower->f_op;
  static const struct file_operations *lower_ops;
  static struct backing_dev_info *seen;
  lower_ops = own;
  seen = nullptr;
  struct file_operations watched = *own;
  watched.write = [](struct file *f, const char __user *buf, size_t count, loff_t *pos) -> ssize_t {
    seen = current->backing_dev_info;
    return lower_ops->write(f, buf, count, pos);
  };
  lower->f_op = &watched;
  kernel_ds_guard kernel_ds;
  struct super_block *sb = file->f_dentry->d_sb;
  loff_t pos = 0;
  EXPECT_EQ(vfs_write(file.get(), reinterpret_cast<const char __user *>("T"), 1, &pos), 1);
  EXPECT_EQ(seen, file->f_mapping->backing_dev_info);
  EXPECT_EQ(current->backing_dev_info, nullptr);
  lower->f_op = own;
  const unsigned long long limit = sb->s_maxbytes;
  sb->s_maxbytes = 10;
  pos = 10;
  EXPECT_EQ(vfs_write(file.get(), reinterpret_cast<const char __user *>("T"), 1, &pos), -EFBIG);
  EXPECT_EQ(current->backing_dev_info, nullptr);
  sb->s_maxbytes = limit;
}
