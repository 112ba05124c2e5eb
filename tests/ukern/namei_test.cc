// SPDX-License-Identifier: GPL-2.0
// The path walk.
#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"

namespace {

struct inode *inode_at(const char *path, unsigned flags) {
  struct nameidata nd;
  if (path_lookup(path, flags, &nd)) return NULL;
  struct inode *inode = nd.dentry->d_inode;
  path_release(&nd);
  return inode;
}

int walk(const char *path, unsigned flags) {
  struct nameidata nd;
  const int error = path_lookup(path, flags, &nd);
  if (!error) path_release(&nd);
  return error;
}

int last_type(const char *path) {
  struct nameidata nd;
  const int error = path_lookup(path, LOOKUP_PARENT, &nd);
  if (error) return error;
  const int type = nd.last_type;
  path_release(&nd);
  return type;
}

}  // namespace

CASE(namei, walk_to_file) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/f", 0644, "x"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/d/f", 0, &nd), 0);
  EXPECT_TRUE(S_ISREG(nd.dentry->d_inode->i_mode));
  EXPECT_EQ(nd.dentry->d_name.len, 1u);
  EXPECT_EQ(nd.mnt->mnt_sb == nd.dentry->d_sb, true);
  path_release(&nd);
}

CASE(namei, slashes_and_dots) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/f", 0644, "x"), 0);
  struct inode *f = inode_at("/d/f", 0);
  REQUIRE_TRUE(f);
  EXPECT_TRUE(inode_at("//d///f", 0) == f);
  EXPECT_TRUE(inode_at("/./d/./f", 0) == f);
  EXPECT_TRUE(inode_at("/d/../d/f", 0) == f);
  EXPECT_TRUE(inode_at("/../../d/f", 0) == f);
  EXPECT_TRUE(inode_at("/d/..", 0) == inode_at("/", 0));
}

CASE(namei, errors) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/f", 0644, "x"), 0);
  EXPECT_EQ(walk("/d/none", 0), -ENOENT);
  EXPECT_EQ(walk("/none/f", 0), -ENOENT);
  EXPECT_EQ(walk("/d/f/x", 0), -ENOTDIR);
  EXPECT_EQ(walk("/d/f/", 0), -ENOTDIR);
  EXPECT_EQ(walk("/d/f", LOOKUP_DIRECTORY), -ENOTDIR);
  EXPECT_EQ(walk("/d/", 0), 0);
  EXPECT_EQ(walk("/d", LOOKUP_DIRECTORY), 0);
}

CASE(namei, parent) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/d/none", LOOKUP_PARENT, &nd), 0);
  EXPECT_EQ(nd.last_type, (int)LAST_NORM);
  EXPECT_EQ(nd.last.len, 4u);
  EXPECT_EQ(strncmp((const char *)nd.last.name, "none", 4), 0);
  EXPECT_TRUE(S_ISDIR(nd.dentry->d_inode->i_mode));
  path_release(&nd);
  EXPECT_EQ(last_type("/"), (int)LAST_ROOT);
  EXPECT_EQ(last_type("/d/."), (int)LAST_DOT);
  EXPECT_EQ(last_type("/d/.."), (int)LAST_DOTDOT);
  EXPECT_EQ(last_type("/d/..."), (int)LAST_NORM);
  EXPECT_EQ(last_type("/none/x"), -ENOENT);
}

CASE(namei, links) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/f", 0644, "x"), 0);
  REQUIRE_EQ(name_symlink("/d/f", "/absolute"), 0);
  REQUIRE_EQ(name_symlink("f", "/d/relative"), 0);
  REQUIRE_EQ(name_symlink("../d", "/d/self"), 0);
  REQUIRE_EQ(name_symlink("nowhere", "/d/dangling"), 0);
  struct inode *f = inode_at("/d/f", 0);
  EXPECT_TRUE(inode_at("/absolute", LOOKUP_FOLLOW) == f);
  EXPECT_TRUE(inode_at("/d/relative", LOOKUP_FOLLOW) == f);
  EXPECT_TRUE(inode_at("/d/self/self/relative", LOOKUP_FOLLOW) == f);
  EXPECT_TRUE(S_ISLNK(inode_at("/absolute", 0)->i_mode));
  // A slash behind it asks for what the link leads to.
  EXPECT_TRUE(inode_at("/d/self/", 0) == inode_at("/d", 0));
  EXPECT_EQ(walk("/d/dangling", 0), 0);
  EXPECT_EQ(walk("/d/dangling", LOOKUP_FOLLOW), -ENOENT);
  EXPECT_EQ(walk("/absolute/x", 0), -ENOTDIR);
}

CASE(namei, link_loops) {
  REQUIRE_EQ(name_symlink("/b", "/a"), 0);
  REQUIRE_EQ(name_symlink("/a", "/b"), 0);
  EXPECT_EQ(walk("/a", LOOKUP_FOLLOW), -ELOOP);
  EXPECT_EQ(walk("/a/x", 0), -ELOOP);
  EXPECT_EQ(walk("/a", 0), 0);
}

CASE(namei, nested_links_end_at_eight) {
  // A link that is the last component of a link's text nests.
  char from[] = "/l1", to[] = "/l0";
  REQUIRE_EQ(name_write("/l0", 0644, ""), 0);
  for (char i = '1'; i <= '9'; i++) {
    from[2] = i;
    to[2] = (char)(i - 1);
    REQUIRE_EQ(name_symlink(to, from), 0);
  }
  EXPECT_EQ(walk("/l8", LOOKUP_FOLLOW), 0);
  EXPECT_EQ(walk("/l9", LOOKUP_FOLLOW), -ELOOP);
}

CASE(namei, links_in_a_row_end_at_forty) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_symlink(".", "/d/l"), 0);
  char path[3 + 41 * 2 + 1] = "/d";
  for (int i = 0; i < 40; i++) strcat(path, "/l");
  EXPECT_EQ(walk(path, LOOKUP_FOLLOW), 0);
  strcat(path, "/l");
  EXPECT_EQ(walk(path, LOOKUP_FOLLOW), -ELOOP);
}

CASE(namei, search_permission) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/f", 0644, "x"), 0);
  REQUIRE_EQ(name_chmod("/d", 0744), 0);
  EXPECT_EQ(walk("/d/f", 0), 0);
  as_user user(1000, 1000);
  EXPECT_EQ(walk("/d/f", 0), -EACCES);
  EXPECT_EQ(walk("/d/none", 0), -EACCES);
  EXPECT_EQ(walk("/d", 0), 0);
}

CASE(namei, references_are_given_back) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_symlink("loop", "/d/loop"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/d", 0, &nd), 0);
  const int dentry_count = atomic_read(&nd.dentry->d_count);
  const int mnt_count = atomic_read(&nd.mnt->mnt_count);
  EXPECT_EQ(walk("/d/none", 0), -ENOENT);
  EXPECT_EQ(walk("/d/none/x", 0), -ENOENT);
  EXPECT_EQ(walk("/d/loop", LOOKUP_FOLLOW), -ELOOP);
  EXPECT_EQ(walk("/d/.", 0), 0);
  // Negative dentries stay in the cache and hold their parent.
  EXPECT_LE(atomic_read(&nd.dentry->d_count), dentry_count + 2);
  EXPECT_EQ(atomic_read(&nd.mnt->mnt_count), mnt_count);
  path_release(&nd);
}

CASE(namei, one_component) {
  REQUIRE_EQ(name_mkdir("/d", 0755), 0);
  REQUIRE_EQ(name_write("/d/f", 0644, "x"), 0);
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/d", 0, &nd), 0);
  mutex_lock(&nd.dentry->d_inode->i_mutex);
  struct dentry *dentry = lookup_one_len("f", nd.dentry, 1);
  EXPECT_FALSE(IS_ERR(dentry));
  EXPECT_TRUE(dentry->d_inode);
  dput(dentry);
  dentry = lookup_one_len("none", nd.dentry, 4);
  EXPECT_FALSE(IS_ERR(dentry));
  EXPECT_FALSE(dentry->d_inode);
  dput(dentry);
  EXPECT_EQ(PTR_ERR(lookup_one_len("", nd.dentry, 0)), (long)-EACCES);
  EXPECT_EQ(PTR_ERR(lookup_one_len("a/b", nd.dentry, 3)), (long)-EACCES);
  EXPECT_EQ(PTR_ERR(lookup_one_len("ab", nd.dentry, 3)), (long)-EACCES);
  mutex_unlock(&nd.dentry->d_inode->i_mutex);
  path_release(&nd);
}
