// SPDX-License-Identifier: GPL-2.0
// The inode cache: finding, making, keeping and freeing inodes, their dirtiness and time stamps.
#include "tests/ukern/testfs.h"

struct wanted {
  unsigned long number;
  int sets;
  int set_error;
};

static int is_wanted(struct inode *inode, void *data) {
  return inode->i_ino == ((struct wanted *)data)->number;
}

static int make_wanted(struct inode *inode, void *data) {
  struct wanted *want = (struct wanted *)data;
  want->sets++;
  if (want->set_error) return want->set_error;
  inode->i_ino = want->number;
  return 0;
}

static struct inode *get(testfs *fs, struct wanted *want) {
  return iget5_locked(fs->sb(), want->number, is_wanted, make_wanted, want);
}

/* The inode of that number, filled in as a file. */
static struct inode *get_file_inode(testfs *fs, unsigned long number) {
  struct wanted want = {number, 0, 0};
  struct inode *inode = get(fs, &want);
  if (inode && (inode->i_state & I_NEW)) {
    inode->i_mode = S_IFREG | 0644;
    unlock_new_inode(inode);
  }
  return inode;
}

CASE(inode, fresh_inode) {
  testfs fs;
  struct inode *inode = new_inode(fs.sb());
  REQUIRE_TRUE(inode);
  EXPECT_EQ(atomic_read(&inode->i_count), 1);
  EXPECT_EQ(inode->i_nlink, 1u);
  EXPECT_EQ(inode->i_size, 0);
  EXPECT_EQ(inode->i_state, 0ul);
  EXPECT_EQ(inode->i_blkbits, 12u);
  EXPECT_TRUE(inode->i_sb == fs.sb());
  EXPECT_TRUE(inode->i_mapping == &inode->i_data);
  EXPECT_TRUE(inode->i_data.host == inode);
  EXPECT_TRUE(inode->i_op && inode->i_fop && inode->i_data.a_ops);
  EXPECT_TRUE(hlist_unhashed(&inode->i_hash));
  iput(inode);
  EXPECT_EQ(fs.n.cleared, 1);
}

CASE(inode, one_inode_per_key) {
  testfs fs;
  struct wanted want = {77, 0, 0};
  struct inode *one = get(&fs, &want);
  REQUIRE_TRUE(one);
  EXPECT_EQ(one->i_state, (unsigned long)(I_NEW | I_LOCK));
  unlock_new_inode(one);
  EXPECT_EQ(one->i_state, 0ul);
  struct inode *two = get(&fs, &want);
  EXPECT_TRUE(two == one);
  EXPECT_EQ(want.sets, 1);
  EXPECT_EQ(atomic_read(&one->i_count), 2);
  struct wanted other = {78, 0, 0};
  struct inode *three = get(&fs, &other);
  REQUIRE_TRUE(three);
  EXPECT_TRUE(three != one);
  unlock_new_inode(three);
  iput(three);
  iput(two);
  iput(one);
}

CASE(inode, refused_set_gives_none) {
  testfs fs;
  struct wanted want = {5, 0, 1};
  EXPECT_TRUE(get(&fs, &want) == NULL);
  EXPECT_EQ(want.sets, 1);
  EXPECT_TRUE(ilookup5(fs.sb(), 5, is_wanted, &want) == NULL);
}

CASE(inode, lookup_finds_only_what_is_there) {
  testfs fs;
  struct wanted want = {9, 0, 0};
  EXPECT_TRUE(ilookup5(fs.sb(), 9, is_wanted, &want) == NULL);
  struct inode *inode = get_file_inode(&fs, 9);
  REQUIRE_TRUE(inode);
  struct inode *found = ilookup5(fs.sb(), 9, is_wanted, &want);
  EXPECT_TRUE(found == inode);
  iput(found);
  remove_inode_hash(inode);
  EXPECT_TRUE(ilookup5_nowait(fs.sb(), 9, is_wanted, &want) == NULL);
  iput(inode);
  EXPECT_EQ(fs.n.cleared, 1);
}

CASE(inode, hashed_inode_with_links_is_kept) {
  testfs fs;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  iput(inode);
  EXPECT_EQ(fs.n.cleared, 0);
  struct inode *again = get_file_inode(&fs, 3);
  EXPECT_TRUE(again == inode);
  again->i_nlink = 0;
  iput(again);
  EXPECT_EQ(fs.n.deleted, 1);
  EXPECT_EQ(fs.n.cleared, 1);
}

CASE(inode, delete_on_last_reference_when_the_file_system_says_so) {
  testfs fs(0);
  fs.super_ops.delete_inode = NULL;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  iput(inode);
  EXPECT_EQ(fs.n.cleared, 1);
}

CASE(inode, igrab_adds_a_reference) {
  testfs fs;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  EXPECT_TRUE(igrab(inode) == inode);
  EXPECT_EQ(atomic_read(&inode->i_count), 2);
  iput(inode);
  iput(inode);
}

static struct inode *grabbed_while_cleared;

static void grab_in_clear(struct inode *inode) {
  grabbed_while_cleared = igrab(inode);
}

CASE(inode, igrab_refuses_an_inode_on_its_way_out) {
  testfs fs(0);
  fs.super_ops.clear_inode = grab_in_clear;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  grabbed_while_cleared = inode;
  iput(inode);
  EXPECT_TRUE(grabbed_while_cleared == NULL);
}

struct second_user {
  testfs *fs;
  struct completion started, finished;
  struct inode *found;
  unsigned long state;
};

static int look_for_it(void *data) {
  struct second_user *user = (struct second_user *)data;
  struct wanted want = {42, 0, 0};
  complete(&user->started);
  user->found = get(user->fs, &want);
  user->state = user->found ? (unsigned long)user->found->i_state : 0;
  complete(&user->finished);
  return 0;
}

CASE(inode, second_user_waits_until_the_first_has_filled_it_in) {
  testfs fs;
  struct wanted want = {42, 0, 0};
  struct inode *inode = get(&fs, &want);
  REQUIRE_TRUE(inode);
  struct second_user user = {};
  user.fs = &fs;
  init_completion(&user.started);
  init_completion(&user.finished);
  struct task_struct *task = kthread_run(look_for_it, &user, "second");
  REQUIRE_TRUE(!IS_ERR(task));
  wait_for_completion(&user.started);
  EXPECT_EQ(wait_for_completion_timeout(&user.finished, HZ / 20), 0ul);
  unlock_new_inode(inode);
  wait_for_completion(&user.finished);
  EXPECT_TRUE(user.found == inode);
  EXPECT_EQ(user.state, 0ul);
  iput(user.found);
  iput(inode);
}

CASE(inode, dirty_inode_is_written_once) {
  testfs fs;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  mark_inode_dirty_sync(inode);
  EXPECT_EQ(inode->i_state & I_DIRTY, (unsigned long)I_DIRTY_SYNC);
  mark_inode_dirty(inode);
  EXPECT_EQ(inode->i_state & I_DIRTY, (unsigned long)I_DIRTY);
  EXPECT_EQ(write_inode_now(inode, 1), 0);
  EXPECT_EQ(inode->i_state, 0ul);
  EXPECT_EQ(fs.n.written, 1);
  EXPECT_EQ(write_inode_now(inode, 1), 0);
  EXPECT_EQ(fs.n.written, 1);
  iput(inode);
}

CASE(inode, dirty_pages_alone_do_not_write_the_inode) {
  testfs fs;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  __mark_inode_dirty(inode, I_DIRTY_PAGES);
  EXPECT_EQ(write_inode_now(inode, 1), 0);
  EXPECT_EQ(fs.n.written, 0);
  iput(inode);
}

CASE(inode, unmount_writes_dirty_inodes) {
  testfs fs;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  mark_inode_dirty(inode);
  iput(inode);
  EXPECT_EQ(fs.n.written, 0);
  fs.unmount();
  EXPECT_EQ(fs.n.written, 1);
  EXPECT_EQ(fs.n.cleared, 2);
}

CASE(inode, osync_writes_by_what_is_asked) {
  testfs fs;
  struct inode *inode = get_file_inode(&fs, 3);
  REQUIRE_TRUE(inode);
  mark_inode_dirty_sync(inode);
  EXPECT_EQ(generic_osync_inode(inode, inode->i_mapping, OSYNC_METADATA | OSYNC_DATA), 0);
  EXPECT_EQ(fs.n.written, 0);
  EXPECT_EQ(generic_osync_inode(inode, inode->i_mapping, OSYNC_INODE), 0);
  EXPECT_EQ(fs.n.written, 1);
  __mark_inode_dirty(inode, I_DIRTY_DATASYNC);
  EXPECT_EQ(generic_osync_inode(inode, inode->i_mapping, OSYNC_METADATA), 0);
  EXPECT_EQ(fs.n.written, 2);
  iput(inode);
}

static int later(const struct timespec *a, const struct timespec *b) {
  return a->tv_sec != b->tv_sec ? a->tv_sec > b->tv_sec : a->tv_nsec > b->tv_nsec;
}

CASE(inode, touch_atime_obeys_the_flags) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "f", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  struct inode *inode = dentry->d_inode;
  const struct timespec old = {1, 0};

  inode->i_atime = old;
  touch_atime(fs.mnt, dentry);
  EXPECT_TRUE(later(&inode->i_atime, &old));

  inode->i_atime = old;
  inode->i_flags |= S_NOATIME;
  touch_atime(fs.mnt, dentry);
  EXPECT_EQ(inode->i_atime.tv_sec, 1);
  inode->i_flags = 0;

  fs.mnt->mnt_flags |= MNT_NOATIME;
  touch_atime(fs.mnt, dentry);
  EXPECT_EQ(inode->i_atime.tv_sec, 1);
  fs.mnt->mnt_flags = MNT_NODIRATIME;
  touch_atime(fs.mnt, dentry);
  EXPECT_TRUE(later(&inode->i_atime, &old));
  fs.root()->d_inode->i_atime = old;
  touch_atime(fs.mnt, fs.root());
  EXPECT_EQ(fs.root()->d_inode->i_atime.tv_sec, 1);
  fs.mnt->mnt_flags = 0;

  inode->i_atime = old;
  fs.sb()->s_flags |= MS_RDONLY;
  touch_atime(fs.mnt, dentry);
  EXPECT_EQ(inode->i_atime.tv_sec, 1);
  fs.sb()->s_flags &= ~(unsigned long)MS_RDONLY;
  touch_atime(NULL, dentry);
  EXPECT_TRUE(later(&inode->i_atime, &old));
  dput(dentry);
}

CASE(inode, file_update_time_sets_both_times) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "f", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  struct file file = {};
  file.f_dentry = dentry;
  struct inode *inode = dentry->d_inode;
  inode->i_mtime.tv_sec = inode->i_ctime.tv_sec = 1;
  inode->i_flags |= S_NOCMTIME;
  file_update_time(&file);
  EXPECT_EQ(inode->i_mtime.tv_sec, 1);
  inode->i_flags = 0;
  file_update_time(&file);
  EXPECT_NE(inode->i_mtime.tv_sec, 1);
  EXPECT_EQ(inode->i_mtime.tv_sec, inode->i_ctime.tv_sec);
  EXPECT_EQ(inode->i_mtime.tv_nsec, inode->i_ctime.tv_nsec);
  dput(dentry);
}

CASE(inode, times_are_cut_to_the_granularity) {
  testfs fs;
  fs.sb()->s_time_gran = 1000000000;
  EXPECT_EQ(current_fs_time(fs.sb()).tv_nsec, 0);
}

CASE(inode, special_inodes) {
  testfs fs;
  struct inode *inode = fs.inode(S_IFREG);
  REQUIRE_TRUE(inode);
  init_special_inode(inode, S_IFCHR | 0600, MKDEV(1, 3));
  EXPECT_EQ(inode->i_mode, S_IFCHR | 0600);
  EXPECT_EQ(inode->i_rdev, MKDEV(1, 3));
  EXPECT_EQ(imajor(inode), 1u);
  EXPECT_EQ(iminor(inode), 3u);
  inode->i_rdev = 0;
  init_special_inode(inode, S_IFIFO | 0600, MKDEV(9, 9));
  EXPECT_EQ(inode->i_rdev, 0u);
  init_special_inode(inode, S_IFSOCK | 0600, 0);
  EXPECT_EQ(inode->i_fop->open(inode, NULL), -ENXIO);
  iput(inode);
}

CASE(inode, device_numbers_are_encoded_as_user_level_sees_them) {
  const dev_t dev = MKDEV(0x123, 0x45678);
  EXPECT_EQ(new_encode_dev(dev), 0x45612378u);
  EXPECT_EQ(new_decode_dev(0x45612378u), dev);
}

CASE(inode, iunique_gives_unused_numbers) {
  testfs fs;
  const ino_t one = iunique(fs.sb(), 1000);
  const ino_t two = iunique(fs.sb(), 1000);
  EXPECT_TRUE(one > 1000);
  EXPECT_NE(one, two);
}
