// SPDX-License-Identifier: GPL-2.0
// hostfs on a directory of the host made for the case: what it shows is what the host has, at every
// moment.
#include <linux/xattr.h>
#include "tests/harness/case.h"
#include "tests/ukern/host_dir.h"
#include "tests/ukern/open_file.h"
#include "ukern/fs/hostfs.h"

namespace {

struct names {
  unsigned count;
  int has_file;
};

int count_name(void *arg, const char *name, int len, loff_t, ino_t, unsigned) {
  names *n = (names *)arg;
  n->count++;
  if (len == 4 && !memcmp(name, "f042", 4)) n->has_file++;
  return 0;
}

// Root is anybody on the host; others are themselves.
bool is_anybody() {
  const struct host_identity other = {54321, 54321, 0, nullptr, 0};
  return host_fs_can_be(&other);
}

}  // namespace

CASE(hostfs, what_is_made_is_on_the_host) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  struct uk_stat st;
  EXPECT_EQ(name_mkdir("/h/d", 0750), 0);
  EXPECT_EQ(name_symlink("to/where", "/h/l"), 0);
  EXPECT_EQ(name_mknod("/h/p", S_IFIFO | 0622, 0), 0);
  EXPECT_EQ(name_mknod("/h/f", S_IFREG | 0604, 0), 0);
  EXPECT_EQ(name_link("/h/f", "/h/g"), 0);
  EXPECT_EQ(host.stat("d", &st), 0);
  EXPECT_EQ(st.mode, (unsigned)S_IFDIR | 0750u);
  EXPECT_EQ(host.stat("p", &st), 0);
  EXPECT_EQ(st.mode & S_IFMT, (unsigned)S_IFIFO);
  EXPECT_EQ(host.stat("g", &st), 0);
  EXPECT_EQ(st.nlink, 2u);
  EXPECT_EQ(name_rename("/h/g", "/h/d/g"), 0);
  EXPECT_EQ(host.stat("g", &st), -ENOENT);
  EXPECT_EQ(name_rmdir("/h/d"), -ENOTEMPTY);
  EXPECT_EQ(name_unlink("/h/d/g"), 0);
  EXPECT_EQ(name_rmdir("/h/d"), 0);
  EXPECT_EQ(host.stat("f", &st), 0);
  EXPECT_EQ(st.nlink, 1u);
}

CASE(hostfs, data_goes_straight_to_the_host) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  static char data[100000], seen[100000];
  fill_pattern(data, sizeof(data), 3);
  open_file file("/h/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write(data, sizeof(data), 0), (long)sizeof(data));
  EXPECT_EQ(file.mapping()->nrpages, 0ul);
  EXPECT_EQ(i_size_read(file.inode()), (loff_t)sizeof(data));
  struct uk_stat st;
  EXPECT_EQ(host.stat("f", &st), 0);
  EXPECT_EQ(st.size, (unsigned long long)sizeof(data));
  EXPECT_EQ(file.read(seen, sizeof(seen), 0), (long)sizeof(data));
  EXPECT_EQ(memcmp(data, seen, sizeof(data)), 0);
  EXPECT_EQ(do_fsync(file.get(), 0), 0);
  EXPECT_EQ(file.truncate(10), 0);
  EXPECT_EQ(file.read(seen, 100, 0), 10);
}

CASE(hostfs, appending_lands_at_the_hosts_end) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  EXPECT_EQ(host.put("f", "begin"), 0);
  open_file file("/h/f", O_RDWR | O_APPEND);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("+end", 4, 0), 4);
  char seen[10] = {};
  EXPECT_EQ(file.read(seen, 9, 0), 9);
  EXPECT_STREQ(seen, "begin+end");
}

CASE(hostfs, what_the_host_changes_is_seen_at_once) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  struct kstat stat;
  EXPECT_EQ(name_stat("/h/f", &stat), -ENOENT);
  EXPECT_EQ(host.put("f", "12345"), 0);
  EXPECT_EQ(name_stat("/h/f", &stat), 0);
  EXPECT_EQ(stat.size, 5);
  const ino_t first = stat.ino;
  EXPECT_EQ(host.put("g", "1"), 0);
  EXPECT_EQ(host_fs_rename(NULL, host.fd(), "g", host.fd(), "f"), 0);
  EXPECT_EQ(name_stat("/h/f", &stat), 0);
  EXPECT_EQ(stat.size, 1);
  EXPECT_NE(stat.ino, first);
  EXPECT_EQ(host_fs_unlink(NULL, host.fd(), "f"), 0);
  EXPECT_EQ(name_stat("/h/f", &stat), -ENOENT);
}

// By whether the host was asked: each look-up asks, and so does a call that is one of its own.
CASE(hostfs, one_request_asks_once) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  EXPECT_EQ(host.put("f", "1"), 0);
  EXPECT_EQ(host.put("other", "22"), 0);
  struct uk_node *top = NULL, *node = NULL;
  REQUIRE_EQ(uk_node_at("/h", &top), 0);
  struct uk_stat stat;
  REQUIRE_EQ(uk_lookup(top, "f", &node, NULL), 0);

  // Replaced behind its back: who goes on with the call still has what was found ...
  EXPECT_EQ(host.rename("other", "f"), 0);
  uk_request_continues(1);
  EXPECT_EQ(uk_getattr(node, NULL, &stat), 0);
  EXPECT_EQ(stat.nlink, 1u);
  // ... and who begins one sees what has become of it.
  EXPECT_EQ(uk_getattr(node, NULL, &stat), 0);
  EXPECT_EQ(stat.nlink, 0u);
  uk_node_put(node, 1);

  // A look-up asks in any case.
  REQUIRE_EQ(uk_lookup(top, "f", &node, &stat), 0);
  uk_node_put(node, 1);
  EXPECT_EQ(stat.size, 2u);
  EXPECT_EQ(host.put("third", "333"), 0);
  EXPECT_EQ(host.rename("third", "f"), 0);
  uk_request_continues(1);
  REQUIRE_EQ(uk_lookup(top, "f", &node, &stat), 0);
  EXPECT_EQ(stat.size, 3u);
  uk_node_put(node, 1);

  // Several look-ups are one call, and a name in vain is remembered in it as well.
  EXPECT_EQ(host.put("a", "1"), 0);
  EXPECT_EQ(uk_lookup(top, "a", &node, NULL), 0);
  uk_node_put(node, 1);
  uk_request_continues(1);
  EXPECT_EQ(uk_lookup(top, "b", &node, NULL), -ENOENT);
  EXPECT_EQ(host.rename("a", "c"), 0);
  uk_request_continues(1);
  EXPECT_EQ(uk_rename(top, "a", top, "b"), -ENOENT);  // the host's answer to the rename itself
  EXPECT_EQ(uk_rename(top, "c", top, "b"), 0);
  uk_node_put(top, 1);
}

CASE(hostfs, a_directory_that_the_host_moved) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  EXPECT_EQ(name_mkdir("/h/a", 0755), 0);
  EXPECT_EQ(name_mknod("/h/a/f", S_IFREG | 0644, 0), 0);
  EXPECT_EQ(host_fs_rename(NULL, host.fd(), "a", host.fd(), "b"), 0);
  struct kstat stat;
  EXPECT_EQ(name_stat("/h/b/f", &stat), 0);
  EXPECT_EQ(name_stat("/h/a", &stat), -ENOENT);
  EXPECT_EQ(name_unlink("/h/b/f"), 0);
  EXPECT_EQ(name_rmdir("/h/b"), 0);
}

CASE(hostfs, two_names_are_one_inode) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  EXPECT_EQ(name_mknod("/h/f", S_IFREG | 0644, 0), 0);
  EXPECT_EQ(name_link("/h/f", "/h/g"), 0);
  open_file one("/h/f", O_RDWR), two("/h/g", O_RDWR);
  REQUIRE_EQ(one.error() | two.error(), 0);
  EXPECT_EQ(one.inode(), two.inode());
  EXPECT_EQ(one.inode()->i_nlink, 2u);
}

CASE(hostfs, attributes_are_set_on_the_host) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  EXPECT_EQ(name_mknod("/h/f", S_IFREG | 0644, 0), 0);
  struct iattr attr = {};
  attr.ia_valid = ATTR_MTIME | ATTR_MTIME_SET | ATTR_ATIME | ATTR_ATIME_SET;
  attr.ia_mtime.tv_sec = 1111;
  attr.ia_mtime.tv_nsec = 222333444;
  attr.ia_atime.tv_sec = 5;
  EXPECT_EQ(name_change("/h/f", &attr), 0);
  EXPECT_EQ(name_chmod("/h/f", 0640), 0);
  struct uk_stat st;
  EXPECT_EQ(host.stat("f", &st), 0);
  EXPECT_EQ(st.mtime.sec, 1111);
  EXPECT_EQ(st.mtime.nsec, 222333444u);
  EXPECT_EQ(st.atime.sec, 5);
  EXPECT_EQ(st.mode, (unsigned)S_IFREG | 0640u);
}

CASE(hostfs, ownership_is_the_callers) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  if (!is_anybody()) return;
  EXPECT_EQ(name_mkdir("/h/open", 0777), 0);
  EXPECT_EQ(name_chmod("/h/open", 0777), 0);
  EXPECT_EQ(name_mkdir("/h/shut", 0700), 0);
  {
    as_user user(12345, 54321);
    EXPECT_EQ(name_mknod("/h/open/f", S_IFREG | 0600, 0), 0);
    EXPECT_EQ(name_mknod("/h/shut/f", S_IFREG | 0600, 0), -EACCES);
    EXPECT_EQ(name_chown("/h/open/f", 0, 0), -EPERM);
  }
  struct kstat stat;
  EXPECT_EQ(name_stat("/h/open/f", &stat), 0);
  EXPECT_EQ(stat.uid, 12345u);
  EXPECT_EQ(stat.gid, 54321u);
  {
    as_user other(777, 777);
    EXPECT_EQ(name_open("/h/open/f", O_RDONLY, 0), -EACCES);
  }
  EXPECT_EQ(name_unlink("/h/open/f"), 0);
  EXPECT_EQ(name_rmdir("/h/open"), 0);
}

CASE(hostfs, a_user_writing_takes_the_set_user_id_bit_away) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  if (!is_anybody()) return;
  EXPECT_EQ(name_mknod("/h/f", S_IFREG | 0666, 0), 0);
  EXPECT_EQ(name_chmod("/h/f", 04777), 0);
  struct uk_stat st;
  {
    open_file file("/h/f", O_RDWR);
    REQUIRE_EQ(file.error(), 0);
    EXPECT_EQ(file.write("x", 1, 0), 1);
    EXPECT_EQ(host.stat("f", &st), 0);
    EXPECT_TRUE(st.mode & S_ISUID);
    as_user user(12345, 12345);
    EXPECT_EQ(file.write("y", 1, 0), 1);
  }
  EXPECT_EQ(host.stat("f", &st), 0);
  EXPECT_FALSE(st.mode & S_ISUID);
}

// The number of a user is nothing by itself: what the caller may beyond its owner's rights is what
// its capabilities say.
CASE(hostfs, capabilities_are_the_callers) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  if (!is_anybody()) return;
  EXPECT_EQ(name_mkdir("/h/shut", 0700), 0);
  EXPECT_EQ(name_mknod("/h/shut/f", S_IFREG | 0600, 0), 0);
  EXPECT_EQ(name_chown("/h/shut/f", 12345, 12345), 0);
  const kernel_cap_t all = current->cap_effective;
  current->cap_effective = 0;
  const int of_another = name_chmod("/h/shut/f", 0640);
  const int opened = name_open("/h/shut/f", O_RDONLY, 0);
  current->cap_effective = all;
  EXPECT_EQ(of_another, -EPERM);
  EXPECT_EQ(opened, -EACCES);
  {
    as_user bearer(777, 777);
    current->cap_effective = CAP_TO_MASK(CAP_DAC_OVERRIDE);
    EXPECT_EQ(name_mknod("/h/shut/g", S_IFREG | 0600, 0), 0);
    EXPECT_EQ(name_chown("/h/shut/f", 777, 777), -EPERM);
    current->cap_effective |= CAP_TO_MASK(CAP_CHOWN);
    EXPECT_EQ(name_chown("/h/shut/f", 777, 777), 0);
  }
  struct uk_stat st;
  EXPECT_EQ(host.stat("shut/g", &st), 0);
  EXPECT_EQ(st.uid, 777u);
  EXPECT_EQ(host.stat("shut/f", &st), 0);
  EXPECT_EQ(st.uid, 777u);
}

CASE(hostfs, a_running_program_can_be_opened_but_not_written) {
  const int error = name_mkdir("/exe", 0755);
  REQUIRE_EQ(error, 0);
  REQUIRE_EQ(uk_fs_mount("/proc/self", "/exe", "hostfs", 0, NULL), 0);
  {
    struct nameidata nd;
    REQUIRE_EQ(path_lookup("/exe/exe", 0, &nd), 0);
    char *target = (char *)__getname();
    kernel_buffers kernel;
    const int length = nd.dentry->d_inode->i_op->readlink(nd.dentry, target, PATH_MAX - 1);
    EXPECT_GT(length, 0);
    if (length > 0) target[length] = '\0';
    path_release(&nd);
    EXPECT_EQ(name_mkdir("/whole", 0755), 0);
    EXPECT_EQ(uk_fs_mount("/", "/whole", "hostfs", 0, NULL), 0);
    char *path = (char *)__getname();
    snprintf(path, PATH_MAX, "/whole%s", target);
    {
      open_file file(path, O_RDWR);
      EXPECT_EQ(file.error(), 0);
      char magic[4];
      EXPECT_EQ(file.read(magic, 4, 0), 4);
      EXPECT_EQ(memcmp(magic + 1, "ELF", 3), 0);
      // As somebody who may not write the program anyway, that is what one is told.
      const long refused = file.write("x", 1, 0);
      EXPECT_TRUE(refused == -ETXTBSY || (!is_anybody() && refused == -EACCES));
    }
    __putname(path);
    __putname(target);
    EXPECT_EQ(uk_fs_umount("/whole", 0), 0);
  }
  EXPECT_EQ(uk_fs_umount("/exe", 0), 0);
}

CASE(hostfs, a_directory_is_read_whole) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  char name[8];
  for (int i = 0; i < 1000; i++) {
    snprintf(name, sizeof(name), "f%03d", i);
    EXPECT_EQ(host.put(name, ""), 0);
  }
  open_file dir("/h", O_RDONLY | O_DIRECTORY);
  REQUIRE_EQ(dir.error(), 0);
  names found = {};
  EXPECT_EQ(vfs_readdir(dir.get(), count_name, &found), 0);
  EXPECT_EQ(found.count, 1002u);
  EXPECT_EQ(found.has_file, 1);
}

CASE(hostfs, idle_files_are_closed_and_opened_again) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  hostfs_set_idle_files(1);
  {
    open_file one("/h/one"), two("/h/two"), three("/h/three");
    REQUIRE_EQ(one.error() | two.error() | three.error(), 0);
    char seen = 0;
    for (int round = 0; round < 3; round++) {
      EXPECT_EQ(one.write("1", 1, round), 1);
      EXPECT_EQ(two.write("2", 1, round), 1);
      EXPECT_EQ(three.write("3", 1, round), 1);
      EXPECT_EQ(one.read(&seen, 1, round), 1);
      EXPECT_EQ(seen, '1');
    }
    // What was unlinked can be opened again all the same.
    EXPECT_EQ(name_unlink("/h/two"), 0);
    EXPECT_EQ(two.read(&seen, 1, 2), 1);
    EXPECT_EQ(seen, '2');
    open_file dir("/h", O_RDONLY | O_DIRECTORY);
    names found = {};
    EXPECT_EQ(vfs_readdir(dir.get(), count_name, &found), 0);
    EXPECT_EQ(found.count, 4u);
  }
  hostfs_set_idle_files(1000);
}

namespace {

struct crowd {
  struct file *files[3];
  int errors;
  atomic_t next;
  struct completion done;
};

int write_all_in_turn(void *data) {
  crowd *c = (crowd *)data;
  const int me = atomic_inc_return(&c->next);
  kernel_buffers kernel;
  for (int i = 0; i < 100; i++) {
    struct file *file = c->files[i % 3];
    loff_t pos = me * 100 + i;
    const char byte = (char)(me + i);
    char seen = 0;
    int failed = vfs_write(file, &byte, 1, &pos) != 1;
    pos = me * 100 + i;
    failed |= vfs_read(file, &seen, 1, &pos) != 1 || seen != byte;
    if (failed) __atomic_add_fetch(&c->errors, 1, __ATOMIC_RELAXED);
  }
  complete(&c->done);
  return 0;
}

}  // namespace

CASE(hostfs, many_threads_on_few_descriptors) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  hostfs_set_idle_files(1);
  {
    open_file one("/h/one"), two("/h/two"), three("/h/three");
    REQUIRE_EQ(one.error() | two.error() | three.error(), 0);
    crowd c = {};
    c.files[0] = one.get();
    c.files[1] = two.get();
    c.files[2] = three.get();
    init_completion(&c.done);
    for (int i = 0; i < 4; i++)
      EXPECT_FALSE(IS_ERR(kthread_run(write_all_in_turn, &c, "crowd%d", i)));
    for (int i = 0; i < 4; i++) wait_for_completion(&c.done);
    EXPECT_EQ(c.errors, 0);
  }
  hostfs_set_idle_files(1000);
}

CASE(hostfs, links_are_followed_inside_the_mount) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  EXPECT_EQ(host.put("f", "through"), 0);
  EXPECT_EQ(name_symlink("f", "/h/l"), 0);
  char seen[16];
  EXPECT_EQ(name_read("/h/l", seen, sizeof(seen)), 0);
  EXPECT_STREQ(seen, "through");
}

CASE(hostfs, an_open_file_outlives_its_name) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  open_file file("/h/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("still", 5, 0), 5);
  EXPECT_EQ(name_unlink("/h/f"), 0);
  char seen[6] = {};
  EXPECT_EQ(file.read(seen, 5, 0), 5);
  EXPECT_STREQ(seen, "still");
  EXPECT_EQ(file.inode()->i_nlink, 0u);
}

CASE(hostfs, page_by_page_through_the_cache) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  open_file file("/h/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("first", 5, 0), 5);
  struct page *page = read_mapping_page(file.mapping(), 0, file.get());
  REQUIRE_TRUE(!IS_ERR(page));
  EXPECT_TRUE(PageUptodate(page));
  EXPECT_EQ(memcmp(page_address(page), "first", 6), 0);
  page_cache_release(page);
  EXPECT_EQ(file.write("F", 1, 0), 1);
  EXPECT_EQ(file.mapping()->nrpages, 0ul);
}

CASE(hostfs, a_source_that_is_no_directory) {
  REQUIRE_EQ(name_mkdir("/h", 0755), 0);
  EXPECT_EQ(uk_fs_mount("/no/such/place", "/h", "hostfs", 0, NULL), -ENOENT);
  EXPECT_EQ(uk_fs_mount("/etc/passwd", "/h", "hostfs", 0, NULL), -ENOTDIR);
}

CASE(hostfs, the_hosts_figures) {
  host_dir host;
  REQUIRE_EQ(host.error(), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/h", 0, &nd), 0);
  struct kstatfs ours;
  struct uk_statfs theirs;
  EXPECT_EQ(vfs_statfs(nd.dentry, &ours), 0);
  EXPECT_EQ(host_fs_statfs(host.fd(), &theirs), 0);
  EXPECT_EQ(ours.f_blocks, theirs.blocks);
  EXPECT_EQ(ours.f_type, theirs.type);
  EXPECT_EQ(ours.f_namelen, theirs.namelen);
  path_release(&nd);
}
