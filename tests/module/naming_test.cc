// SPDX-License-Identifier: GPL-2.0
// Which file a record means: its path is the object's name, or the record says what it is instead.
#include "tests/module/kit/mount.h"
#include "tests/ukern/as_user.h"
#include "ukern/fs/memfs.h"

namespace {

void write_is_recorded(replicated &r, test_file &file, const char *path, int naming) {
  r.daemon.drain();
  EXPECT_EQ(file.write("y", 1, 0), 1);
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_WRITE);
  EXPECT_STREQ(record.wr()->data, path);
  EXPECT_EQ(record.msg()->cp, naming);
}

int change_mode(test_file &file, unsigned mode) {
  struct uk_stat want = {}, after = {};
  want.mode = mode;
  return uk_setattr(file.node(), file.get(), UK_SET_MODE, &want, &after);
}

bool is_hashed(const char *path) {
  const test_walk lower(path);
  return !d_unhashed(lower.dentry());
}

}  // namespace

MODULE_CASE(naming, a_file_that_was_linked_while_open_keeps_its_name) {
  replicated r;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(test_link("/mnt/f", "/mnt/g"), 0);
  write_is_recorded(r, file, "/lower/f", OX_CP_NAMED);
  EXPECT_EQ(test_link("/mnt/f", "/mnt/h"), 0);
  r.daemon.drain();
  EXPECT_EQ(change_mode(file, 0600), 0);
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_SETATTR);
  EXPECT_STREQ(record.attr()->name, "/lower/f");
  EXPECT_EQ(record.msg()->cp, OX_CP_NAMED);
}

// The end of an inode of another mount takes the lower dentry out of the cache at any time.
MODULE_CASE(naming, a_link_tells_the_old_name_although_the_cache_lost_it_meanwhile) {
  replicated r;
  REQUIRE_EQ(test_put("/mnt/f", "x"), 1);
  const test_walk lower("/lower");
  static struct inode_operations *own;
  own = lower.inode()->i_op;
  struct inode_operations dropping = *own;
  dropping.link = [](struct dentry *old, struct inode *dir, struct dentry *dentry) -> int {
    d_drop(old);
    return own->link(old, dir, dentry);
  };
  lower.inode()->i_op = &dropping;
  r.daemon.drain();
  EXPECT_EQ(test_link("/mnt/f", "/mnt/g"), 0);
  lower.inode()->i_op = own;
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_LINK);
  EXPECT_EQ(record.msg()->cp, OX_CP_NAMED);
  EXPECT_STREQ(record.path1(), "/lower/f");
  EXPECT_STREQ(record.path2(), "/lower/g");
}

MODULE_CASE(naming, a_file_that_was_linked_and_renamed_while_open_has_its_new_name) {
  replicated r;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(test_link("/mnt/f", "/mnt/g"), 0);
  EXPECT_EQ(test_rename("/mnt/f", "/mnt/f2"), 0);
  EXPECT_EQ(test_unlink("/mnt/g"), 0);
  write_is_recorded(r, file, "/lower/f2", OX_CP_NAMED);
}

MODULE_CASE(naming, a_file_that_lost_one_of_two_names_has_the_other) {
  replicated r;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(test_link("/mnt/f", "/mnt/g"), 0);
  EXPECT_TRUE(test_exists("/mnt/g"));
  EXPECT_EQ(test_unlink("/mnt/f"), 0);
  write_is_recorded(r, file, "/lower/g", OX_CP_NAMED);
  EXPECT_EQ(test_put("/mnt/new", "z"), 1);
  EXPECT_EQ(test_rename("/mnt/new", "/mnt/g"), 0);
  write_is_recorded(r, file, "/lower/f (deleted)", OX_CP_NAMELESS);
}

// A descriptor's change of attributes comes by the file, which was looked up by another name last.
MODULE_CASE(naming, a_file_whose_latest_name_is_gone_is_changed_by_the_one_it_has) {
  replicated r;
  EXPECT_EQ(test_put("/lower/f", "x"), 1);
  EXPECT_EQ(test_link("/lower/f", "/lower/g"), 0);
  EXPECT_TRUE(test_exists("/mnt/f"));
  const test_name latest("/mnt/g");
  {
    const test_walk f("/lower/f");  // as a link through another mount does
    d_drop(f.dentry());
  }
  EXPECT_EQ(test_unlink("/mnt/g"), 0);
  r.daemon.drain();
  struct uk_stat want = {}, after = {};
  want.mode = 0600;
  EXPECT_EQ(uk_setattr(latest.get(), nullptr, UK_SET_MODE, &want, &after), 0);
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_SETATTR);
  EXPECT_STREQ(record.attr()->name, "/lower/f");
  EXPECT_EQ(record.msg()->cp, OX_CP_NAMED);
}

// The old name may be another file's by now: nobody may take it for this one's.
MODULE_CASE(naming, a_file_with_a_name_that_nobody_knows_is_unplaced) {
  replicated r;
  EXPECT_EQ(test_mkdir("/lower/d"), 0);
  EXPECT_EQ(test_put("/lower/f", "x"), 1);
  EXPECT_EQ(test_link("/lower/f", "/lower/d/other"), 0);
  {
    const test_walk d("/lower/d");
    shrink_dcache_parent(d.dentry());
  }
  test_file file("/mnt/f", O_RDWR);
  EXPECT_EQ(test_unlink("/mnt/f"), 0);
  EXPECT_EQ(test_put("/mnt/f", "another"), 7);
  write_is_recorded(r, file, "/lower/f (deleted)", OX_CP_UNPLACED);
}

MODULE_CASE(naming, a_file_that_was_removed_while_open_has_none) {
  replicated r;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(test_unlink("/mnt/f"), 0);
  EXPECT_EQ(test_put("/mnt/f", "another"), 7);
  write_is_recorded(r, file, "/lower/f (deleted)", OX_CP_NAMELESS);
}

MODULE_CASE(naming, a_file_that_was_renamed_over_while_open_has_none) {
  replicated r;
  test_file file("/mnt/longer", O_CREAT | O_RDWR);
  EXPECT_EQ(test_put("/mnt/abc", "x"), 1);
  EXPECT_EQ(test_rename("/mnt/abc", "/mnt/longer"), 0);
  r.daemon.drain();
  EXPECT_EQ(file.write("y", 1, 0), 1);
  EXPECT_EQ(r.daemon.next().msg()->cp, OX_CP_NAMELESS);
  EXPECT_EQ(change_mode(file, 04755), 0);
  EXPECT_EQ(r.daemon.next().msg()->cp, OX_CP_NAMELESS);
  EXPECT_TRUE(test_holds("/lower/longer", "x"));
}

MODULE_CASE(naming, a_name_may_end_as_the_text_of_a_lost_one_does) {
  replicated r;
  test_file file("/mnt/x (deleted)", O_CREAT | O_RDWR);
  write_is_recorded(r, file, "/lower/x (deleted)", OX_CP_NAMED);
}

// 255 bytes of name and the kernel's words behind it.
MODULE_CASE(naming, a_lost_name_of_the_longest_length_stays_a_text) {
  replicated r;
  test_buffer path(300, 'n');
  memcpy(path.get(), "/mnt/", 5);
  path[5 + 255] = 0;
  test_file file(path.get(), O_CREAT | O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(test_unlink(path.get()), 0);
  r.daemon.drain();
  EXPECT_EQ(file.write("y", 1, 0), 1);
  EXPECT_EQ(r.daemon.next().msg()->cp, OX_CP_NAMELESS);
}

MODULE_CASE(naming, a_removed_directory_has_none) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/mnt/d"), 0);
  test_file dir("/mnt/d", O_RDONLY | O_DIRECTORY);
  REQUIRE_EQ(dir.error(), 0);
  EXPECT_EQ(test_rmdir("/mnt/d"), 0);
  r.daemon.drain();
  EXPECT_EQ(change_mode(dir, 0700), 0);
  EXPECT_EQ(r.daemon.next().msg()->cp, OX_CP_NAMELESS);
}

MODULE_CASE(naming, the_end_of_a_second_mount_takes_no_name) {
  replicated r;
  test_mkdir("/second");
  REQUIRE_EQ(uk_fs_mount("/lower", "/second", "tarn", 0, nullptr), 0);
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  { test_file same("/second/f", O_RDWR); }
  REQUIRE_EQ(uk_fs_umount("/second", 0), 0);
  write_is_recorded(r, file, "/lower/f", OX_CP_NAMED);
}

// Whoever works in a lower directory, or has mounted something below it, does not lose his way.
MODULE_CASE(naming, the_end_of_an_inode_leaves_directories_in_the_cache) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  test_mkdir("/second");
  REQUIRE_EQ(uk_fs_mount("/lower", "/second", "tarn", 0, nullptr), 0);
  {
    test_file dir("/second/d", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(dir.error(), 0);
  }
  const test_walk d("/lower/d");
  REQUIRE_EQ(uk_fs_umount("/second", 0), 0);
  EXPECT_FALSE(d_unhashed(d.dentry()));
  EXPECT_TRUE(is_hashed("/lower/d"));
}

MODULE_CASE(naming, bits_that_a_write_takes_away_are_told_before_its_data) {
  replicated r;
  EXPECT_EQ(test_put("/mnt/f", "x"), 1);
  EXPECT_EQ(test_chmod("/mnt/f", 06777), 0);
  test_file file("/mnt/f", O_RDWR);
  r.daemon.drain();
  {
    as_user user(1000, 0);
    EXPECT_EQ(file.write("y", 1, 0), 1);
  }
  const test_message &bits = r.daemon.next();
  EXPECT_EQ(bits.op(), OX_OP_SETATTR);
  EXPECT_EQ(bits.attr()->com.ia_valid, ATTR_MODE);
  EXPECT_EQ(bits.attr()->com.ia_mode & 07777, 0777);
  EXPECT_EQ(r.daemon.next().op(), OX_OP_WRITE);
  EXPECT_EQ(file.write("y", 1, 0), 1);
  EXPECT_EQ(r.daemon.next().op(), OX_OP_WRITE);
}

// ------------------------------------------------------------------- refused lower writes

MODULE_CASE(naming, a_refused_write_leaves_neither_bytes_nor_a_size) {
  replicated r;
  EXPECT_EQ(test_put("/mnt/f", "old"), 3);
  struct super_block *const below = lower_super();
  test_file file("/mnt/f", O_RDWR);
  r.daemon.drain();
  struct uk_stat stat;
  static constexpr unsigned long long places[] = {0, 3, 5000};
  for (const unsigned long long at : places) {
    memfs_fail(below, MEMFS_OP_PREPARE_WRITE, -ENOSPC, 1);
    EXPECT_EQ(file.write("NEW", 3, at), -EINVAL);
    EXPECT_EQ(r.daemon.drain(), 0);
    EXPECT_TRUE(test_holds("/mnt/f", "old"));
    EXPECT_EQ(test_stat("/mnt/f", &stat), 0);
    EXPECT_EQ(stat.size, 3ull);
  }
  EXPECT_TRUE(case_logged("tarn_write_lower: inode 2, 3 bytes at 0: rc=-28"));
  EXPECT_EQ(file.write("+", 1, 3), 1);
  EXPECT_TRUE(test_holds("/lower/f", "old+"));
  EXPECT_STREQ(r.daemon.next().wr()->data, "/lower/f");
}

// What the lower file took of a write is what the record has.
MODULE_CASE(naming, a_short_write_is_recorded_as_far_as_it_came) {
  replicated r;
  EXPECT_EQ(test_put("/mnt/f", ""), 0);
  struct super_block *const below = lower_super();
  test_buffer data(3 * PAGE_SIZE, 'd');
  test_file file("/mnt/f", O_RDWR);
  r.daemon.drain();
  memfs_set_capacity(below, PAGE_SIZE);
  EXPECT_EQ(file.write(data.get(), 3 * PAGE_SIZE, 0), static_cast<long>(PAGE_SIZE));
  memfs_set_capacity(below, 0);
  unsigned long recorded = 0;
  for (const test_message *page = &r.daemon.next(); page->type() >= 0; page = &r.daemon.next())
    recorded += page->wr()->dlen2;
  EXPECT_EQ(recorded, PAGE_SIZE);
  struct uk_stat stat;
  EXPECT_EQ(test_stat("/mnt/f", &stat), 0);
  EXPECT_EQ(stat.size, static_cast<unsigned long long>(PAGE_SIZE));
}
