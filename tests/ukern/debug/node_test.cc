// SPDX-License-Identifier: GPL-2.0
// Nodes and open files as the hosting program uses them.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"
#include <linux/mm.h>
#include <linux/xattr.h>
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"
#include "ukern/door/uk_fs.h"
#include "ukern/fs/memfs.h"
#include "ukern/vfs/exec.h"

namespace {

// One reference on a node for a scope.
class node {
 public:
  node() = default;
  explicit node(const char *path) { error_ = uk_node_at(path, &node_); }
  node(struct uk_node *dir, const char *name) { error_ = uk_lookup(dir, name, &node_, NULL); }
  ~node() { drop(); }
  node(const node &) = delete;
  node &operator=(const node &) = delete;

  void drop() {
    if (node_) uk_node_put(node_, 1);
    node_ = NULL;
  }
  int error() const { return error_; }
  operator struct uk_node *() const { return node_; }
  struct uk_node **out() {
    return &node_;
  }

 private:
  struct uk_node *node_ = NULL;
  int error_ = 0;
};

class open_file {
 public:
  ~open_file() { close(); }
  void close() {
    if (!file_) return;
    uk_flush(file_);
    uk_release(file_);
    file_ = NULL;
  }
  operator struct uk_file *() const { return file_; }
  struct uk_file **out() {
    return &file_;
  }

 private:
  struct uk_file *file_ = NULL;
};

int put_text(struct uk_node *dir, const char *name, const char *text) {
  node made;
  open_file file;
  int error = uk_create(dir, name, O_WRONLY, 0644, made.out(), file.out(), NULL);
  if (error) return error;
  const unsigned long len = strlen(text);
  return uk_write(file, text, len, 0, O_WRONLY) == (long)len ? 0 : -EIO;
}

int get_text(struct uk_node *file_node, char *buf, unsigned long size) {
  open_file file;
  const int error = uk_open(file_node, O_RDONLY, file.out());
  if (error) return error;
  const long done = uk_read(file, buf, size - 1, 0);
  if (done < 0) return (int)done;
  buf[done] = '\0';
  return 0;
}

struct entries {
  int count;
  int room;  // stop when it is used up
  unsigned long long next;
  char names[256];
};

int add_entry(void *arg, const char *name, unsigned long long, unsigned, unsigned long long next) {
  struct entries *list = (struct entries *)arg;
  if (!list->room) return 1;
  list->room--;
  list->count++;
  list->next = next;
  strcat(list->names, name);
  strcat(list->names, " ");
  return 0;
}

}  // namespace

CASE(node, two_names_are_one_node) {
  node root("/");
  REQUIRE_EQ(root.error(), 0);
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  node f(root, "f");
  REQUIRE_EQ(f.error(), 0);
  node g;
  struct uk_stat stat;
  REQUIRE_EQ(uk_link(f, root, "g", g.out(), &stat), 0);
  EXPECT_TRUE((struct uk_node *)f == (struct uk_node *)g);
  EXPECT_EQ(stat.nlink, 2u);
  EXPECT_EQ(stat.ino, uk_node_ino(f));
  node again(root, "f");
  EXPECT_TRUE((struct uk_node *)f == (struct uk_node *)again);
}

CASE(node, references_come_back_in_one_go) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  struct uk_node *f = NULL;
  for (int i = 0; i < 1000; i++) REQUIRE_EQ(uk_lookup(root, "f", &f, NULL), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/f", 0, &nd), 0);
  const int held = atomic_read(&nd.dentry->d_count);
  uk_node_put(f, 999);
  EXPECT_EQ(atomic_read(&nd.dentry->d_count), held);
  uk_node_put(f, 1);
  EXPECT_EQ(atomic_read(&nd.dentry->d_count), held - 1);
  path_release(&nd);
}

CASE(node, the_place_of_a_node_is_its_directory_and_name) {
  node root("/"), d;
  REQUIRE_EQ(uk_mkdir(root, "d", 0755, d.out(), NULL), 0);
  REQUIRE_EQ(put_text(d, "f", "x"), 0);
  node f(d, "f");
  struct uk_node *dir = NULL;
  char name[256] = "";
  REQUIRE_EQ(uk_node_place(f, &dir, name), 0);
  EXPECT_TRUE(dir == (struct uk_node *)d);
  EXPECT_STREQ(name, "f");
  uk_node_put(dir, 1);
  REQUIRE_EQ(uk_rename(d, "f", root, "g"), 0);
  REQUIRE_EQ(uk_node_place(f, &dir, name), 0);
  EXPECT_TRUE(dir == (struct uk_node *)root);
  EXPECT_STREQ(name, "g");
  uk_node_put(dir, 1);
  EXPECT_EQ(uk_node_place(d, &dir, name), -EISDIR);
  REQUIRE_EQ(uk_unlink(root, "g"), 0);
  EXPECT_EQ(uk_node_place(f, &dir, name), -ENOENT);
}

CASE(node, a_node_of_a_directory_that_nobody_holds_has_no_place) {
  node root("/"), f;
  {
    node d;
    REQUIRE_EQ(uk_mkdir(root, "d", 0755, d.out(), NULL), 0);
    REQUIRE_EQ(uk_mknod(d, "f", S_IFREG | 0644, 0, f.out(), NULL), 0);
  }
  struct uk_node *dir = NULL;
  char name[256];
  EXPECT_EQ(uk_node_place(f, &dir, name), -ENOENT);
  uk_node_get(f);
  uk_node_put(f, 1);
}

CASE(node, nothing_is_held_after_the_last_put) {
  node root("/");
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/", 0, &nd), 0);
  const int mounts = atomic_read(&nd.mnt->mnt_count);
  {
    node d;
    REQUIRE_EQ(uk_mkdir(root, "d", 0755, d.out(), NULL), 0);
    EXPECT_EQ(atomic_read(&nd.mnt->mnt_count), mounts + 1);
    node again(root, "d");
    EXPECT_EQ(atomic_read(&nd.mnt->mnt_count), mounts + 1);
  }
  EXPECT_EQ(atomic_read(&nd.mnt->mnt_count), mounts);
  path_release(&nd);
}

CASE(node, bad_names) {
  node root("/"), out;
  EXPECT_EQ(uk_lookup(root, "none", out.out(), NULL), -ENOENT);
  EXPECT_EQ(uk_lookup(root, "", out.out(), NULL), -ENOENT);
  EXPECT_EQ(uk_lookup(root, "..", out.out(), NULL), -EINVAL);
  EXPECT_EQ(uk_lookup(root, ".", out.out(), NULL), -EINVAL);
  EXPECT_EQ(uk_mkdir(root, "a/b", 0755, out.out(), NULL), -EINVAL);
  EXPECT_EQ(uk_unlink(root, "none"), -ENOENT);
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  node f(root, "f");
  EXPECT_EQ(uk_lookup(f, "x", out.out(), NULL), -ENOTDIR);
}

CASE(node, read_and_write) {
  node root("/"), f;
  open_file file;
  struct uk_stat stat;
  REQUIRE_EQ(uk_create(root, "f", O_RDWR, 0640, f.out(), file.out(), &stat), 0);
  EXPECT_EQ(stat.mode, (unsigned)S_IFREG | 0640);
  EXPECT_EQ(stat.size, 0ull);
  EXPECT_EQ(uk_write(file, "hello world", 11, 0, O_RDWR), 11);
  EXPECT_EQ(uk_write(file, "W", 1, 6, O_RDWR), 1);
  char buf[16] = {};
  EXPECT_EQ(uk_read(file, buf, 15, 6), 5);
  EXPECT_STREQ(buf, "World");
  EXPECT_EQ(uk_read(file, buf, 15, 11), 0);
  EXPECT_EQ(uk_read(file, buf, 15, ~0ull), (long)-EINVAL);
  EXPECT_EQ(uk_fsync(file, 0), 0);
  EXPECT_EQ(uk_getattr(f, file, &stat), 0);
  EXPECT_EQ(stat.size, 11ull);
  file.close();
  REQUIRE_EQ(uk_open(f, O_WRONLY | O_APPEND, file.out()), 0);
  EXPECT_EQ(uk_write(file, "!", 1, 0, O_WRONLY | O_APPEND), 1);
  file.close();
  EXPECT_EQ(get_text(f, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "hello World!");
  REQUIRE_EQ(uk_open(f, O_WRONLY | O_TRUNC, file.out()), 0);
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
  EXPECT_EQ(stat.size, 0ull);
}

CASE(node, a_write_has_the_flags_of_its_moment) {
  node root("/"), f;
  open_file appends, writes;
  char buf[16] = {};
  REQUIRE_EQ(put_text(root, "f", "0123"), 0);
  REQUIRE_EQ(uk_lookup(root, "f", f.out(), NULL), 0);
  REQUIRE_EQ(uk_open(f, O_WRONLY | O_APPEND, appends.out()), 0);
  EXPECT_EQ(uk_write(appends, "a", 1, 0, O_WRONLY), 1);
  EXPECT_EQ(uk_write(appends, "b", 1, 0, O_WRONLY | O_APPEND), 1);
  EXPECT_EQ(uk_write(appends, "c", 1, 0, O_WRONLY | O_APPEND), 1);
  REQUIRE_EQ(uk_open(f, O_WRONLY, writes.out()), 0);
  EXPECT_EQ(uk_write(writes, "d", 1, 1, O_WRONLY | O_APPEND), 1);
  EXPECT_EQ(uk_write(writes, "e", 1, 1, O_WRONLY), 1);
  EXPECT_EQ(get_text(f, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "ae23bcd");
}

CASE(node, an_open_for_reading_truncates_with_the_right_to_write) {
  node root("/"), f;
  open_file file;
  struct uk_stat want = {}, stat;
  REQUIRE_EQ(put_text(root, "f", "0123"), 0);
  REQUIRE_EQ(uk_lookup(root, "f", f.out(), NULL), 0);
  REQUIRE_EQ(uk_open(f, O_RDONLY, file.out()), 0);
  want.size = 2;
  EXPECT_EQ(uk_setattr(f, file, UK_SET_SIZE, &want, &stat), 0);
  EXPECT_EQ(stat.size, 2ull);
  want.mode = 0444;
  REQUIRE_EQ(uk_setattr(f, NULL, UK_SET_MODE, &want, &stat), 0);
  want.size = 0;
  {
    const as_user nobody(1000, 1000);
    EXPECT_EQ(uk_setattr(f, file, UK_SET_SIZE, &want, &stat), -EACCES);
  }
  EXPECT_EQ(uk_getattr(f, file, &stat), 0);
  EXPECT_EQ(stat.size, 2ull);
}

CASE(node, what_may_be_run_need_not_be_readable) {
  node root("/"), f, d;
  struct uk_file *out = NULL;
  struct uk_stat want = {};
  REQUIRE_EQ(put_text(root, "f", "0123"), 0);
  REQUIRE_EQ(uk_lookup(root, "f", f.out(), NULL), 0);
  REQUIRE_EQ(uk_mkdir(root, "d", 0755, d.out(), NULL), 0);
  EXPECT_EQ(uk_open(f, O_RDONLY | UK_OPEN_TO_RUN, &out), -EACCES);
  EXPECT_EQ(uk_open(d, O_RDONLY | UK_OPEN_TO_RUN, &out), -EACCES);
  want.mode = 0711;
  REQUIRE_EQ(uk_setattr(f, NULL, UK_SET_MODE, &want, NULL), 0);
  {
    const as_user nobody(1000, 1000);
    open_file file;
    char buf[8] = {};
    EXPECT_EQ(uk_open(f, O_RDONLY, &out), -EACCES);
    REQUIRE_EQ(uk_open(f, O_RDONLY | UK_OPEN_TO_RUN, file.out()), 0);
    EXPECT_EQ(uk_read(file, buf, 4, 0), 4);
    EXPECT_EQ(uk_write(file, "x", 1, 0, O_RDONLY), (long)-EBADF);
  }
}

CASE(node, a_change_of_nothing_takes_set_id_bits_away) {
  node root("/"), f;
  struct uk_stat want = {}, stat;
  REQUIRE_EQ(put_text(root, "f", ""), 0);
  REQUIRE_EQ(uk_lookup(root, "f", f.out(), NULL), 0);
  want.mode = 06755;
  REQUIRE_EQ(uk_setattr(f, NULL, UK_SET_MODE, &want, &stat), 0);
  EXPECT_EQ(stat.mode, (unsigned)S_IFREG | 06755);
  {
    const as_user nobody(1000, 1000);
    EXPECT_EQ(uk_setattr(f, NULL, 0, &want, &stat), 0);
    EXPECT_EQ(stat.mode, (unsigned)S_IFREG | 06755);
  }
  EXPECT_EQ(uk_setattr(f, NULL, 0, &want, &stat), 0);
  EXPECT_EQ(stat.mode, (unsigned)S_IFREG | 0755);
}

CASE(node, create_does_not_follow_links) {
  node root("/"), f;
  open_file file;
  REQUIRE_EQ(uk_symlink(root, "l", "target", f.out(), NULL), 0);
  f.drop();
  EXPECT_EQ(uk_create(root, "l", O_WRONLY, 0644, f.out(), file.out(), NULL), -ELOOP);
  EXPECT_EQ(uk_lookup(root, "target", f.out(), NULL), -ENOENT);
  EXPECT_EQ(uk_lookup(root, "l", f.out(), NULL), 0);
  char buf[16] = {};
  EXPECT_EQ(uk_readlink(f, buf, sizeof(buf)), 6);
  EXPECT_STREQ(buf, "target");
  EXPECT_EQ(uk_readlink(root, buf, sizeof(buf)), -EINVAL);
}

CASE(node, exclusive_create) {
  node root("/"), f;
  open_file file;
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  EXPECT_EQ(uk_create(root, "f", O_WRONLY | O_EXCL, 0644, f.out(), file.out(), NULL), -EEXIST);
  EXPECT_EQ(uk_create(root, "f", O_WRONLY, 0644, f.out(), file.out(), NULL), 0);
}

CASE(node, unlinked_node_stays_usable) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "old"), 0);
  node f(root, "f");
  open_file file;
  REQUIRE_EQ(uk_open(f, O_RDWR, file.out()), 0);
  REQUIRE_EQ(uk_unlink(root, "f"), 0);
  REQUIRE_EQ(put_text(root, "f", "new"), 0);
  struct uk_stat stat;
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
  EXPECT_EQ(stat.ino, uk_node_ino(f));
  EXPECT_EQ(stat.nlink, 0u);
  struct uk_stat want = {};
  want.mode = 0600;
  want.size = 2;
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_MODE, &want, &stat), 0);
  EXPECT_EQ(stat.mode, (unsigned)S_IFREG | 0600);
  EXPECT_EQ(uk_setattr(f, file, UK_SET_SIZE, &want, &stat), 0);
  EXPECT_EQ(stat.size, 2ull);
  char buf[8] = {};
  EXPECT_EQ(uk_read(file, buf, 7, 0), 2);
  EXPECT_STREQ(buf, "ol");
  EXPECT_EQ(get_text(f, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "ol");
  node fresh(root, "f");
  EXPECT_EQ(get_text(fresh, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "new");
}

CASE(node, renamed_node_is_found_by_its_new_name) {
  node root("/"), d;
  REQUIRE_EQ(uk_mkdir(root, "d", 0755, d.out(), NULL), 0);
  REQUIRE_EQ(put_text(root, "f", "one"), 0);
  node f(root, "f");
  REQUIRE_EQ(uk_rename(root, "f", d, "g"), 0);
  REQUIRE_EQ(put_text(root, "f", "two"), 0);
  char buf[8];
  EXPECT_EQ(get_text(f, buf, sizeof(buf)), 0);
  EXPECT_STREQ(buf, "one");
  node g(d, "g");
  EXPECT_TRUE((struct uk_node *)f == (struct uk_node *)g);
  EXPECT_EQ(uk_rename(root, "d", d, "x"), -EINVAL);
  EXPECT_EQ(uk_rename(d, "g", root, "d"), -ENOTEMPTY);
  EXPECT_EQ(uk_rename(d, "none", root, "x"), -ENOENT);
}

CASE(node, dropped_dentry_is_looked_up_again) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  node f(root, "f");
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/f", 0, &nd), 0);
  d_drop(nd.dentry);
  struct uk_stat stat;
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
  struct nameidata fresh;
  REQUIRE_EQ(path_lookup("/f", 0, &fresh), 0);
  EXPECT_TRUE(fresh.dentry->d_inode == nd.dentry->d_inode);
  EXPECT_TRUE(fresh.dentry != nd.dentry);
  // The node has left the old dentry to its last user.
  EXPECT_EQ(atomic_read(&nd.dentry->d_count), 1);
  path_release(&fresh);
  path_release(&nd);
}

CASE(node, attributes) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "content"), 0);
  node f(root, "f");
  struct uk_stat want = {}, stat;
  want.mode = 0604;
  want.uid = 11;
  want.gid = 12;
  want.size = 3;
  want.atime = {100, 1000};
  want.mtime = {200, 2000};
  EXPECT_EQ(
      uk_setattr(f, NULL,
                 UK_SET_MODE | UK_SET_UID | UK_SET_GID | UK_SET_SIZE | UK_SET_ATIME | UK_SET_MTIME,
                 &want, &stat),
      0);
  EXPECT_EQ(stat.mode, (unsigned)S_IFREG | 0604);
  EXPECT_EQ(stat.uid, 11u);
  EXPECT_EQ(stat.gid, 12u);
  EXPECT_EQ(stat.size, 3ull);
  EXPECT_EQ(stat.nlink, 1u);
  EXPECT_EQ(stat.ino, uk_node_ino(f));
  EXPECT_NE(stat.blksize, 0u);
  EXPECT_EQ(stat.atime.sec, 100);
  EXPECT_EQ(stat.atime.nsec, 1000u);
  EXPECT_EQ(stat.mtime.sec, 200);
  EXPECT_EQ(stat.mtime.nsec, 2000u);
  EXPECT_LT(200, stat.ctime.sec);
  // Each field by itself leaves the others.
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_MTIME_NOW, &want, &stat), 0);
  EXPECT_EQ(stat.atime.sec, 100);
  EXPECT_LT(200, stat.mtime.sec);
  want.gid = 13;
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_GID, &want, &stat), 0);
  EXPECT_EQ(stat.uid, 11u);
  EXPECT_EQ(stat.gid, 13u);
}

CASE(node, attributes_of_others) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "content"), 0);
  node f(root, "f");
  struct uk_stat want = {}, stat;
  as_user user(1000, 1000);
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_MODE, &want, &stat), -EPERM);
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_UID, &want, &stat), -EPERM);
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_SIZE, &want, &stat), -EACCES);
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_MTIME, &want, &stat), -EPERM);
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_MTIME_NOW | UK_SET_ATIME_NOW, &want, &stat), -EACCES);
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
  EXPECT_EQ(stat.size, 7ull);
}

CASE(node, access_asks_for_the_real_user) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  node f(root, "f");
  EXPECT_EQ(uk_access(f, 4 | 2), 0);
  EXPECT_EQ(uk_access(f, 1), -EACCES);
  EXPECT_EQ(uk_access(f, 8), -EINVAL);
  const uid_t uid = current->uid;
  current->uid = 1000;
  EXPECT_EQ(uk_access(f, 4), 0);
  EXPECT_EQ(uk_access(f, 2), -EACCES);
  current->uid = uid;
  EXPECT_EQ(current->fsuid, 0u);
  EXPECT_TRUE(capable(CAP_DAC_OVERRIDE));
}

CASE(node, special_files) {
  node root("/"), p, c;
  struct uk_stat stat;
  EXPECT_EQ(uk_mknod(root, "p", S_IFIFO | 0600, 0, p.out(), &stat), 0);
  EXPECT_EQ(stat.mode, (unsigned)S_IFIFO | 0600);
  EXPECT_EQ(uk_mknod(root, "c", S_IFCHR | 0600, (3u & 0xff) | (259u << 8), c.out(), &stat), 0);
  EXPECT_EQ(stat.rdev, (unsigned long long)((3u & 0xff) | (259u << 8)));
  node f;
  EXPECT_EQ(uk_mknod(root, "f", S_IFREG | 0640, 0, f.out(), &stat), 0);
  EXPECT_EQ(stat.mode, (unsigned)S_IFREG | 0640);
  EXPECT_EQ(uk_mknod(root, "d", S_IFDIR | 0755, 0, f.out(), &stat), -EPERM);
}

CASE(node, removing) {
  node root("/"), d;
  REQUIRE_EQ(uk_mkdir(root, "d", 0755, d.out(), NULL), 0);
  REQUIRE_EQ(put_text(d, "f", "x"), 0);
  EXPECT_EQ(uk_unlink(root, "d"), -EISDIR);
  EXPECT_EQ(uk_rmdir(root, "d"), -ENOTEMPTY);
  EXPECT_EQ(uk_rmdir(d, "f"), -ENOTDIR);
  EXPECT_EQ(uk_unlink(d, "f"), 0);
  EXPECT_EQ(uk_rmdir(root, "d"), 0);
  EXPECT_EQ(put_text(d, "g", "x"), -ENOENT);
}

CASE(node, listing) {
  node root("/"), d;
  REQUIRE_EQ(uk_mkdir(root, "d", 0755, d.out(), NULL), 0);
  REQUIRE_EQ(put_text(d, "a", ""), 0);
  REQUIRE_EQ(put_text(d, "b", ""), 0);
  open_file dir;
  REQUIRE_EQ(uk_open(d, O_RDONLY | O_DIRECTORY, dir.out()), 0);
  struct entries all = {};
  all.room = 100;
  EXPECT_EQ(uk_readdir(dir, 0, add_entry, &all), 0);
  EXPECT_EQ(all.count, 4);
  // One at a time, each call going on behind the one before.
  struct entries single = {};
  for (int i = 0; i < 5; i++) {
    single.room = 1;
    REQUIRE_EQ(uk_readdir(dir, single.next, add_entry, &single), 0);
  }
  EXPECT_EQ(single.count, 4);
  EXPECT_STREQ(single.names, all.names);
  node f(d, "a");
  open_file file;
  REQUIRE_EQ(uk_open(f, O_RDONLY, file.out()), 0);
  EXPECT_EQ(uk_readdir(file, 0, add_entry, &all), -ENOTDIR);
}

CASE(node, extended_attributes) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", ""), 0);
  node f(root, "f");
  char buf[32] = {};
  EXPECT_EQ(uk_setxattr(f, "user.a", "value", 5, 0), 0);
  EXPECT_EQ(uk_getxattr(f, "user.a", NULL, 0), 5);
  EXPECT_EQ(uk_getxattr(f, "user.a", buf, sizeof(buf)), 5);
  EXPECT_STREQ(buf, "value");
  EXPECT_EQ(uk_getxattr(f, "user.a", buf, 2), (long)-ERANGE);
  EXPECT_EQ(uk_setxattr(f, "user.empty", NULL, 0, 0), 0);
  EXPECT_EQ(uk_getxattr(f, "user.empty", buf, sizeof(buf)), 0);
  EXPECT_EQ(uk_listxattr(f, NULL, 0), 18);
  EXPECT_EQ(uk_listxattr(f, buf, sizeof(buf)), 18);
  EXPECT_EQ(uk_removexattr(f, "user.empty"), 0);
  EXPECT_EQ(uk_setxattr(f, "", "v", 1, 0), -ERANGE);
  EXPECT_EQ(uk_setxattr(f, "user.a", "v", 1, 4), -EINVAL);
  EXPECT_EQ(uk_setxattr(f, "user.a", buf, XATTR_SIZE_MAX + 1, 0), -E2BIG);
}

CASE(node, mounts) {
  node root("/"), m;
  REQUIRE_EQ(uk_mkdir(root, "m", 0755, m.out(), NULL), 0);
  m.drop();
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/m", "memfs", 0, NULL), 0);
  {
    node top("/m"), out;
    REQUIRE_EQ(top.error(), 0);
    // By name it is the directory that the mount covers.
    node covered(root, "m");
    EXPECT_FALSE((struct uk_node *)top == (struct uk_node *)covered);
    struct uk_stat above, below;
    EXPECT_EQ(uk_getattr(covered, NULL, &above), 0);
    EXPECT_EQ(uk_getattr(root, NULL, &below), 0);
    EXPECT_EQ(above.dev, below.dev);
    EXPECT_EQ(uk_getattr(top, NULL, &above), 0);
    EXPECT_EQ(uk_getattr(root, NULL, &below), 0);
    EXPECT_NE(above.dev, below.dev);
    EXPECT_EQ(put_text(top, "g", "y"), 0);
    node f(root, "f");
    EXPECT_EQ(uk_link(f, top, "h", out.out(), NULL), -EXDEV);
    EXPECT_EQ(uk_rename(root, "f", top, "h"), -EXDEV);
    EXPECT_EQ(uk_rmdir(root, "m"), -EBUSY);
    struct uk_statfs figures;
    EXPECT_EQ(uk_statfs(top, &figures), 0);
    EXPECT_NE(figures.bsize, 0u);
    EXPECT_EQ(uk_fs_umount("/m", 0), -EBUSY);
  }
  EXPECT_EQ(uk_fs_umount("/m", 0), 0);
}

CASE(node, stale_dentries_are_looked_up_again) {
  node root("/"), m;
  REQUIRE_EQ(uk_mkdir(root, "m", 0755, m.out(), NULL), 0);
  m.drop();
  REQUIRE_EQ(uk_fs_mount("none", "/m", "memfs", 0, "revalidate"), 0);
  {
    node top("/m"), d;
    REQUIRE_EQ(put_text(top, "f", "x"), 0);
    REQUIRE_EQ(uk_mkdir(top, "d", 0755, d.out(), NULL), 0);
    node f(top, "f");
    struct nameidata stale, fresh;
    REQUIRE_EQ(path_lookup("/m/f", 0, &stale), 0);
    memfs_set_revalidate(stale.dentry->d_sb, 0);
    struct uk_stat stat;
    EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
    EXPECT_EQ(stat.size, 1ull);
    // A directory in use is not thrown out.
    node same(top, "d");
    EXPECT_TRUE((struct uk_node *)same == (struct uk_node *)d);
    memfs_set_revalidate(stale.dentry->d_sb, 1);
    REQUIRE_EQ(path_lookup("/m/f", 0, &fresh), 0);
    EXPECT_TRUE(stale.dentry != fresh.dentry);
    EXPECT_TRUE(stale.dentry->d_inode == fresh.dentry->d_inode);
    path_release(&fresh);
    path_release(&stale);
  }
  EXPECT_EQ(uk_fs_umount("/m", 0), 0);
}

CASE(node, errors_of_the_file_system_are_handed_on) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  node f(root, "f"), out;
  open_file file;
  struct uk_stat stat;
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/", 0, &nd), 0);
  struct super_block *sb = nd.dentry->d_sb;
  path_release(&nd);
  memfs_fail(sb, MEMFS_OP_LOOKUP, -EIO, 1);
  EXPECT_EQ(uk_lookup(root, "none", out.out(), &stat), -EIO);
  memfs_fail(sb, MEMFS_OP_CREATE, -ENOSPC, 1);
  EXPECT_EQ(uk_create(root, "g", O_WRONLY, 0644, out.out(), file.out(), &stat), -ENOSPC);
  memfs_fail(sb, MEMFS_OP_OPEN, -EIO, 1);
  EXPECT_EQ(uk_open(f, O_RDWR, file.out()), -EIO);
  memfs_fail(sb, MEMFS_OP_SETATTR, -EPERM, 1);
  struct uk_stat want = {};
  EXPECT_EQ(uk_setattr(f, NULL, UK_SET_MODE, &want, &stat), -EPERM);
  memfs_fail(sb, MEMFS_OP_RENAME, -EIO, 1);
  EXPECT_EQ(uk_rename(root, "f", root, "h"), -EIO);
  EXPECT_EQ(uk_lookup(root, "h", out.out(), &stat), -ENOENT);
  memfs_fail(sb, MEMFS_OP_UNLINK, -EIO, 1);
  EXPECT_EQ(uk_unlink(root, "f"), -EIO);
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
  EXPECT_EQ(stat.nlink, 1u);
}

CASE(node, permission_is_asked_at_lookup) {
  node root("/"), d;
  REQUIRE_EQ(uk_mkdir(root, "d", 0700, d.out(), NULL), 0);
  REQUIRE_EQ(put_text(d, "f", "x"), 0);
  node f(d, "f");
  struct uk_stat stat;
  as_user user(1000, 1000);
  node denied(d, "f");
  EXPECT_EQ(denied.error(), -EACCES);
  // Who has it already, by an open file say, keeps it.
  EXPECT_EQ(uk_getattr(f, NULL, &stat), 0);
}

namespace {

struct crowd {
  struct uk_node *dir;
  atomic_t failed;
  atomic_t running;
};

int look_up_and_put(void *arg) {
  struct crowd *crowd = (struct crowd *)arg;
  for (int i = 0; i < 500; i++) {
    struct uk_node *f;
    struct uk_stat stat;
    if (uk_lookup(crowd->dir, "f", &f, &stat)) {
      atomic_inc(&crowd->failed);
      break;
    }
    if (uk_getattr(f, NULL, &stat)) atomic_inc(&crowd->failed);
    uk_node_put(f, 1);
  }
  atomic_dec(&crowd->running);
  while (!kthread_should_stop()) schedule_timeout_interruptible(1);
  return 0;
}

}  // namespace

CASE(node, many_threads_look_up_one_name) {
  node root("/");
  REQUIRE_EQ(put_text(root, "f", "x"), 0);
  struct crowd crowd = {root, ATOMIC_INIT(0), ATOMIC_INIT(4)};
  struct task_struct *threads[4];
  for (auto &thread : threads) {
    thread = kthread_run(look_up_and_put, &crowd, "lookup");
    REQUIRE_TRUE(!IS_ERR(thread));
  }
  while (atomic_read(&crowd.running)) schedule_timeout_interruptible(1);
  for (auto &thread : threads) EXPECT_EQ(kthread_stop(thread), 0);
  EXPECT_EQ(atomic_read(&crowd.failed), 0);
}

namespace {

// Runs `call` again and again, with its first, second, ... allocation failing, until none does.
// What a failure leaves behind shows when the kernel stops.
template <typename F>
void with_each_allocation_failing(F call) {
  for (unsigned long n = 1;; n++) {
    uk_fault_arm(n);
    const int error = call();
    const bool reached = uk_fault_count() >= n;
    uk_fault_arm(0);
    if (!reached) {
      EXPECT_EQ(error, 0);
      return;
    }
    // Some failures do no harm; a file that cannot be had is one too many.
    EXPECT_TRUE(error == 0 || error == -ENOMEM || error == -ENFILE || error == -ENOSPC);
    REQUIRE_TRUE(n < 1000);
  }
}

}  // namespace

CASE(node, any_allocation_may_fail) {
  node root("/");
  REQUIRE_EQ(root.error(), 0);
  with_each_allocation_failing([&] {
    node f;
    open_file file;
    const int error = uk_create(root, "f", O_RDWR, 0644, f.out(), file.out(), NULL);
    return error ? error : uk_unlink(root, "f");
  });
  with_each_allocation_failing([&] {
    node d;
    const int error = uk_mkdir(root, "d", 0755, d.out(), NULL);
    const int undone = uk_rmdir(root, "d");
    return error ? error : undone;
  });
  with_each_allocation_failing([&] {
    node l;
    const int error = uk_symlink(root, "l", "target", l.out(), NULL);
    const int undone = uk_unlink(root, "l");
    return error ? error : undone;
  });
  REQUIRE_EQ(put_text(root, "g", "x"), 0);
  with_each_allocation_failing([&] {
    open_file file;
    node g(root, "g");
    if (g.error()) return g.error();
    char buf[4];
    const int error = uk_open(g, O_RDONLY, file.out());
    if (error) return error;
    const long done = uk_read(file, buf, sizeof(buf), 0);
    return done < 0 ? (int)done : 0;
  });
  with_each_allocation_failing([&] {
    node g(root, "g");
    return g.error() ? g.error() : uk_setxattr(g, "user.a", "value", 5, 0);
  });
}

CASE(exec, region_of_the_program) {
  REQUIRE_EQ(name_mkdir("/bin", 0700), 0);
  REQUIRE_EQ(name_write("/bin/program", 0755, "x"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/bin/program", 0, &nd), 0);
  const int held = atomic_read(&nd.dentry->d_count);
  {
    // Unreachable for the task, running all the same.
    as_user user(1000, 1000);
    struct mm_struct *mm = ukern_exec_mm("/bin/program");
    REQUIRE_TRUE(mm);
    EXPECT_EQ(current->fsuid, 1000u);
    EXPECT_FALSE(capable(CAP_DAC_OVERRIDE));
    REQUIRE_TRUE(mm->mmap);
    EXPECT_NE(mm->mmap->vm_flags & VM_EXECUTABLE, 0ul);
    EXPECT_TRUE(mm->mmap->vm_file->f_dentry == nd.dentry);
    EXPECT_TRUE(mm->mmap->vm_file->f_vfsmnt == nd.mnt);
    ukern_exec_mm_free(mm);
  }
  EXPECT_EQ(atomic_read(&nd.dentry->d_count), held);
  EXPECT_FALSE(ukern_exec_mm("/bin/none"));
  EXPECT_FALSE(ukern_exec_mm("/bin"));
  path_release(&nd);
}
