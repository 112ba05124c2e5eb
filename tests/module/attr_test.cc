// SPDX-License-Identifier: GPL-2.0
// Attribute changes, extended attributes, and symbolic links.
#include "tests/module/kit/mount.h"
#include "tests/ukern/as_user.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_fault.h"

namespace {

int set_size(const char *path, unsigned long long size) {
  const test_node node(path);
  struct uk_stat want = {};
  struct uk_stat after = {};
  want.size = size;
  return uk_setattr(node.get(), nullptr, UK_SET_SIZE, &want, &after);
}

}  // namespace

MODULE_CASE(attr, mode_changes_below_and_above_with_one_record) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  EXPECT_EQ(test_chmod("/mnt/f", 0640), 0);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  EXPECT_EQ(lower.inode()->i_mode, S_IFREG | 0640);
  EXPECT_EQ(upper.inode()->i_mode, S_IFREG | 0640);
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_SETATTR);
  EXPECT_TRUE(record.attr()->com.ia_valid & ATTR_MODE);
  EXPECT_EQ(record.attr()->com.ia_mode & 07777, 0640);
  EXPECT_STREQ(record.attr()->name, "/lower/f");
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(attr, times_that_a_program_sets_reach_below_and_above) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  const test_node node("/mnt/f");
  struct uk_stat want = {};
  struct uk_stat after = {};
  want.mtime.sec = 1000000;
  want.mtime.nsec = 5000;
  want.atime.sec = 2000000;
  EXPECT_EQ(uk_setattr(node.get(), nullptr, UK_SET_ATIME | UK_SET_MTIME, &want, &after), 0);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  EXPECT_EQ(lower.inode()->i_mtime.tv_sec, 1000000);
  EXPECT_EQ(upper.inode()->i_mtime.tv_sec, 1000000);
  EXPECT_EQ(upper.inode()->i_mtime.tv_nsec, lower.inode()->i_mtime.tv_nsec);
  EXPECT_EQ(upper.inode()->i_atime.tv_sec, 2000000);
}

// A lower file system keeps times in its own way: what is above is what it has kept.
MODULE_CASE(attr, times_are_what_the_lower_file_system_made_of_them) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  const test_walk upper("/mnt/f");
  struct inode *lower = tarn_lower_inode(upper.inode());
  struct inode_operations *own = lower->i_op;
  struct inode_operations coarse = *own;
  coarse.setattr = [](struct dentry *dentry, struct iattr *ia) -> int {
    struct iattr kept = *ia;
    kept.ia_atime.tv_sec = ia->ia_atime.tv_sec + 10;
    kept.ia_mtime.tv_sec = ia->ia_mtime.tv_sec + 20;
    kept.ia_ctime.tv_sec = 3000000;
    return inode_setattr(dentry->d_inode, &kept);
  };
  lower->i_op = &coarse;
  const test_node node("/mnt/f");
  struct uk_stat want = {}, after = {};
  want.mtime.sec = 1000000;
  want.atime.sec = 2000000;
  EXPECT_EQ(uk_setattr(node.get(), nullptr, UK_SET_ATIME | UK_SET_MTIME, &want, &after), 0);
  lower->i_op = own;
  EXPECT_EQ(upper.inode()->i_atime.tv_sec, 2000010);
  EXPECT_EQ(upper.inode()->i_mtime.tv_sec, 1000020);
  EXPECT_EQ(upper.inode()->i_ctime.tv_sec, 3000000);
}

// Neither smaller nor larger: there is nothing to truncate, not even behind the end of the file.
MODULE_CASE(attr, size_that_stays_leaves_the_upper_pages_as_they_are) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "text"), 4);
  const test_walk upper("/mnt/f");
  struct page *page = find_get_page(upper.inode()->i_mapping, 0);
  REQUIRE_TRUE(page);
  char *bytes = static_cast<char *>(page_address(page));
  bytes[100] = '#';
  EXPECT_EQ(set_size("/mnt/f", 4), 0);
  EXPECT_EQ(bytes[100], '#');
  EXPECT_EQ(set_size("/mnt/f", 3), 0);
  EXPECT_EQ(bytes[100], 0);
  page_cache_release(page);
}

MODULE_CASE(attr, shrinking_truncates_the_upper_pages_before_the_lower_file) {
  test_mount mount;
  test_buffer data(12288, 'a');
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  REQUIRE_EQ(file.write(data.get(), 12288, 0), 12288);
  const test_walk upper("/mnt/f");
  EXPECT_EQ(upper.inode()->i_mapping->nrpages, 3ul);

  // Seen from the lower file system's own setattr, the upper pages are gone already.
  static unsigned long pages_then;
  static struct inode *upper_inode;
  static struct inode_operations *own;
  upper_inode = upper.inode();
  struct inode *lower = tarn_lower_inode(upper_inode);
  own = lower->i_op;
  struct inode_operations watched = *own;
  watched.setattr = [](struct dentry *dentry, struct iattr *ia) -> int {
    pages_then = upper_inode->i_mapping->nrpages;
    if (own->setattr) return own->setattr(dentry, ia);
    const int rc = inode_change_ok(dentry->d_inode, ia);
    return rc ? rc : inode_setattr(dentry->d_inode, ia);
  };
  lower->i_op = &watched;
  EXPECT_EQ(set_size("/mnt/f", 100), 0);
  lower->i_op = own;
  EXPECT_EQ(pages_then, 1ul);
  EXPECT_EQ(i_size_read(upper.inode()), 100);
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/f", &stat), 0);
  EXPECT_EQ(stat.size, 100ull);
}

MODULE_CASE(attr, growing_leaves_the_new_part_empty) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  EXPECT_EQ(set_size("/mnt/f", 6000), 0);
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/f", &stat), 0);
  EXPECT_EQ(stat.size, 6000ull);
  test_file file("/mnt/f", O_RDONLY);
  char text[4] = {1, 1, 1, 1};
  EXPECT_EQ(file.read(text, 4, 5996), 4);
  EXPECT_EQ(memcmp(text, "\0\0\0\0", 4), 0);
}

MODULE_CASE(attr, change_that_the_lower_inode_forbids_is_neither_made_nor_captured) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  lower.inode()->i_uid = 5;
  upper.inode()->i_uid = 1000;
  struct iattr ia;
  memset(&ia, 0, sizeof(ia));
  ia.ia_valid = ATTR_MODE;
  ia.ia_mode = S_IFREG | 0600;
  {
    as_user user(1000, 0);
    mutex_guard guard(upper.inode()->i_mutex);
    EXPECT_EQ(tarn_main_iops.setattr(upper.dentry(), &ia), -EPERM);
  }
  EXPECT_EQ(lower.inode()->i_mode, S_IFREG | 0644);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(attr, change_that_the_lower_file_system_refuses_is_captured_all_the_same) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  struct inode *lower = tarn_lower_inode(upper.inode());
  struct inode_operations *own = lower->i_op;
  struct inode_operations refusing = *own;
  refusing.setattr = [](struct dentry *, struct iattr *) -> int { return -EROFS; };
  lower->i_op = &refusing;
  EXPECT_EQ(test_chmod("/mnt/f", 0600), -EROFS);
  lower->i_op = own;
  EXPECT_EQ(upper.inode()->i_mode, S_IFREG | 0644);
  EXPECT_EQ(r.daemon.next().op(), OX_OP_SETATTR);
  EXPECT_TRUE(r.daemon.idle());
}

// A change by an open file carries that file; the lower file system must see its own.
MODULE_CASE(attr, lower_file_system_sees_its_own_file) {
  test_mount mount;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  const test_walk upper("/mnt/f");
  static struct file *seen;
  static struct file *lower_file;
  static struct inode_operations *own;
  seen = nullptr;
  lower_file = tarn_inode(upper.inode())->lower_file;
  struct inode *lower = tarn_lower_inode(upper.inode());
  own = lower->i_op;
  struct inode_operations watched = *own;
  watched.setattr = [](struct dentry *dentry, struct iattr *ia) -> int {
    if (ia->ia_valid & ATTR_FILE) seen = ia->ia_file;
    return inode_setattr(dentry->d_inode, ia);
  };
  lower->i_op = &watched;
  struct uk_stat want = {};
  struct uk_stat after = {};
  want.size = 10;
  EXPECT_EQ(uk_setattr(file.node(), file.get(), UK_SET_SIZE, &want, &after), 0);
  lower->i_op = own;
  EXPECT_EQ(seen, lower_file);
}

MODULE_CASE(attr, extended_attribute_goes_below_and_is_not_captured) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_node upper("/mnt/f");
  const test_node lower("/lower/f");
  EXPECT_EQ(uk_setxattr(upper.get(), "user.colour", "blue", 4, 0), 0);
  char value[16] = {};
  EXPECT_EQ(uk_getxattr(lower.get(), "user.colour", value, sizeof(value)), 4);
  EXPECT_STREQ(value, "blue");
  EXPECT_EQ(uk_getxattr(upper.get(), "user.colour", value, sizeof(value)), 4);
  char names[64] = {};
  EXPECT_EQ(uk_listxattr(upper.get(), names, sizeof(names)), 12);
  EXPECT_STREQ(names, "user.colour");
  EXPECT_EQ(uk_removexattr(upper.get(), "user.colour"), 0);
  EXPECT_EQ(uk_getxattr(lower.get(), "user.colour", value, sizeof(value)), -ENODATA);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(attr, extended_attributes_need_them_below) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  struct inode *lower = tarn_lower_inode(upper.inode());
  struct inode_operations *own = lower->i_op;
  struct inode_operations without = *own;
  without.setxattr = nullptr;
  without.getxattr = nullptr;
  without.listxattr = nullptr;
  without.removexattr = nullptr;
  lower->i_op = &without;
  const struct inode_operations *ops = &tarn_main_iops;
  char value[4];
  EXPECT_EQ(ops->setxattr(upper.dentry(), "user.a", "b", 1, 0), -EOPNOTSUPP);
  EXPECT_EQ(ops->getxattr(upper.dentry(), "user.a", value, 4), -EOPNOTSUPP);
  EXPECT_EQ(ops->listxattr(upper.dentry(), value, 4), -EOPNOTSUPP);
  EXPECT_EQ(ops->removexattr(upper.dentry(), "user.a"), -EOPNOTSUPP);
  lower->i_op = own;
}

MODULE_CASE(attr, reading_a_link_takes_over_its_access_time) {
  test_mount mount;
  REQUIRE_EQ(test_symlink("target", "/lower/l"), 0);
  const test_name link("/mnt/l");
  const test_walk upper("/mnt/l");
  const test_walk lower("/lower/l");
  lower.inode()->i_atime.tv_sec = 4711;
  lower.inode()->i_flags |= S_NOATIME;
  char text[16] = {};
  EXPECT_EQ(uk_readlink(link.get(), text, sizeof(text)), 6);
  EXPECT_STREQ(text, "target");
  EXPECT_EQ(upper.inode()->i_atime.tv_sec, 4711);
}

MODULE_CASE(attr, link_to_a_file_is_followed) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "seen"), 4);
  REQUIRE_EQ(test_symlink("f", "/lower/l"), 0);
  EXPECT_TRUE(test_holds("/mnt/l", "seen"));
}

MODULE_CASE(attr, longest_link_is_followed_with_its_zero_byte) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  test_buffer target(8192);
  for (int i = 0; i < 4094; i += 2) memcpy(target.get() + i, "./", 2);
  memcpy(target.get() + 4094, "f", 2);
  REQUIRE_EQ(strlen(target.get()), 4095ul);
  REQUIRE_EQ(test_symlink(target.get(), "/lower/l"), 0);
  EXPECT_TRUE(test_holds("/mnt/l", "x"));

  const test_walk link("/mnt/l");
  struct nameidata nd;
  memset(&nd, 0, sizeof(nd));
  REQUIRE_EQ(tarn_symlink_iops.follow_link(link.dentry(), &nd), nullptr);
  EXPECT_EQ(strlen(nd_get_link(&nd)), 4095ul);
  tarn_symlink_iops.put_link(link.dentry(), &nd, nullptr);
}

// The buffer has no room for the zero byte of a longer text.
MODULE_CASE(attr, link_text_that_fills_the_buffer_is_too_long) {
  test_mount mount;
  REQUIRE_EQ(test_symlink("f", "/lower/l"), 0);
  const test_walk link("/mnt/l");
  struct inode *lower = tarn_lower_inode(link.inode());
  struct inode_operations *own = lower->i_op;
  struct inode_operations endless = *own;
  endless.readlink = [](struct dentry *, char __user *buf, int size) -> int {
    memset(buf, 'x', size);
    return size;
  };
  lower->i_op = &endless;
  EXPECT_EQ(test_walk("/mnt/l", LOOKUP_FOLLOW).error(), -ENAMETOOLONG);
  endless.readlink = [](struct dentry *, char __user *, int) -> int { return -EIO; };
  EXPECT_EQ(test_walk("/mnt/l", LOOKUP_FOLLOW).error(), -EIO);
  endless.readlink = nullptr;
  EXPECT_EQ(test_walk("/mnt/l", LOOKUP_FOLLOW).error(), -EINVAL);
  lower->i_op = own;
}

MODULE_CASE(attr, link_without_memory_for_its_text_is_out_of_memory) {
  test_mount mount;
  REQUIRE_EQ(test_symlink("f", "/lower/l"), 0);
  const test_walk link("/mnt/l");
  struct nameidata nd;
  memset(&nd, 0, sizeof(nd));
  uk_fault_arm(1);
  EXPECT_EQ(PTR_ERR(tarn_symlink_iops.follow_link(link.dentry(), &nd)), -ENOMEM);
  uk_fault_arm(0);
}

MODULE_CASE(attr, setting_one_without_lower_support_is_not_supported) {
  test_mount mount("noxattr");
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_node upper("/mnt/f");
  EXPECT_EQ(uk_setxattr(upper.get(), "user.colour", "blue", 4, 0), -EOPNOTSUPP);
}

MODULE_CASE(attr, new_object_is_recorded_with_its_owner_and_the_directory_s_times) {
  replicated r;
  const test_walk lower("/lower");
  lower.inode()->i_mode |= S_ISGID;
  lower.inode()->i_gid = 77;
  lower.inode()->i_atime.tv_sec = 4711;
  lower.inode()->i_atime.tv_nsec = 5000;
  current->fsuid = 1000;
  EXPECT_EQ(test_mkdir("/mnt/d", 0750), 0);
  EXPECT_EQ(test_put("/mnt/f", ""), 0);
  current->fsuid = 0;
  const unsigned long long mtime = lower.inode()->i_mtime.tv_sec * 1000000ull;
  static constexpr int modes[] = {0750, S_IFREG | 0644};
  for (const int mode : modes) {
    const test_message &made = r.daemon.next();
    EXPECT_EQ(made.para()->mode, static_cast<unsigned>(mode));
    const test_message &record = r.daemon.next();
    EXPECT_EQ(record.op(), OX_OP_SETATTR);
    EXPECT_EQ(record.attr()->com.ia_mode, mode);
    EXPECT_EQ(record.attr()->com.ia_atime, 4711000005ull);
    EXPECT_LE(mtime - 1000000, record.attr()->com.ia_mtime);
    EXPECT_LE(mtime - 1000000, record.attr()->com.ia_ctime);
    EXPECT_EQ(record.attr()->sec.ia_uid, 1000u);
    EXPECT_EQ(record.attr()->sec.ia_gid, 77u);
    if (S_ISREG(mode)) continue;
    /* The directory above has passed its bit on. */
    const test_message &bits = r.daemon.next();
    EXPECT_EQ(bits.op(), OX_OP_SETATTR);
    EXPECT_EQ(bits.attr()->com.ia_valid, ATTR_MODE);
    EXPECT_EQ(bits.attr()->com.ia_mode, S_IFDIR | S_ISGID | 0750);
  }
  EXPECT_EQ(r.daemon.drain(), 0);
}

namespace {

struct inode *grown_inode;
struct inode_operations *grown_ops;
long long size_above;  // of the upper inode at the last change below

int note_size_above(struct dentry *dentry, struct iattr *ia) {
  size_above = i_size_read(grown_inode);
  return grown_ops->setattr(dentry, ia);
}

}  // namespace

// A size that the upper super block would not allow is refused before the lower file is changed; as
// long as the upper limit is not the smaller one, the upper size follows the lower one.
MODULE_CASE(attr, growing_is_tried_above_where_the_upper_limit_is_smaller) {
  replicated r;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  const test_walk upper("/mnt/f");
  grown_inode = upper.inode();
  struct inode *lower = tarn_lower_inode(grown_inode);
  grown_ops = lower->i_op;
  struct inode_operations watched = *grown_ops;
  watched.setattr = note_size_above;
  lower->i_op = &watched;
  EXPECT_EQ(set_size("/mnt/f", 6000), 0);
  EXPECT_EQ(size_above, 1);
  upper.dentry()->d_sb->s_maxbytes = 10000;
  EXPECT_EQ(set_size("/mnt/f", 8000), 0);
  EXPECT_EQ(size_above, 8000);
  r.daemon.drain();
  size_above = -1;
  EXPECT_EQ(set_size("/mnt/f", 20000), -EFBIG);
  EXPECT_EQ(size_above, -1);
  EXPECT_EQ(i_size_read(lower), 8000);
  EXPECT_TRUE(r.daemon.idle());
  lower->i_op = grown_ops;
}

MODULE_CASE(attr, record_is_what_the_lower_call_made_of_the_change) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  const test_walk lower("/lower/f");
  lower.inode()->i_mode = S_IFREG | 04755;
  struct iattr ia;
  memset(&ia, 0, sizeof(ia));
  ia.ia_valid = ATTR_KILL_SUID;
  {
    mutex_guard guard(upper.inode()->i_mutex);
    EXPECT_EQ(tarn_main_iops.setattr(upper.dentry(), &ia), 0);
  }
  EXPECT_EQ(lower.inode()->i_mode, S_IFREG | 0755);
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.attr()->com.ia_valid, ATTR_MODE);
  EXPECT_EQ(record.attr()->com.ia_mode, S_IFREG | 0755);
  EXPECT_NE(record.attr()->com.ia_ctime, 0ull);
}

MODULE_CASE(attr, link_is_read_by_the_upper_inode_s_own_operation) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/other", "other"), 5);
  REQUIRE_EQ(test_symlink("f", "/lower/l"), 0);
  const test_walk link("/mnt/l");
  struct inode_operations *own = link.inode()->i_op;
  struct inode_operations watched = *own;
  watched.readlink = [](struct dentry *, char __user *buf, int) -> int {
    return copy_to_user(buf, "other", 5) ? -EFAULT : 5;
  };
  link.inode()->i_op = &watched;
  EXPECT_TRUE(test_holds("/mnt/l", "other"));
  link.inode()->i_op = own;
}

MODULE_CASE(attr, link_that_cannot_be_read_keeps_its_access_time) {
  test_mount mount;
  REQUIRE_EQ(test_symlink("f", "/lower/l"), 0);
  const test_walk link("/mnt/l");
  const test_walk lower("/lower/l");
  struct inode_operations *own = lower.inode()->i_op;
  struct inode_operations failing = *own;
  failing.readlink = [](struct dentry *, char __user *, int) -> int { return -EIO; };
  lower.inode()->i_atime.tv_sec = 4711;
  lower.inode()->i_op = &failing;
  EXPECT_EQ(tarn_symlink_iops.readlink(link.dentry(), nullptr, 0), -EIO);
  lower.inode()->i_op = nullptr;
  EXPECT_EQ(tarn_symlink_iops.readlink(link.dentry(), nullptr, 0), -EINVAL);
  lower.inode()->i_op = own;
  EXPECT_NE(link.inode()->i_atime.tv_sec, 4711);
}
