// SPDX-License-Identifier: GPL-2.0
// The dentry cache.
#include "tests/ukern/testfs.h"

static const char *const kLong = "a name that is too long to be kept inside the dentry itself";
static const char *const kLonger =
    "another name of the kind that gets memory of its own in the cache";

static const char *text(struct dentry *dentry) {
  return (const char *)dentry->d_name.name;
}

CASE(dcache, alloc_copies_the_name) {
  testfs fs;
  char buf[] = "abc/rest";
  struct qstr q = testfs::name(buf);
  q.len = 3;
  const int before = atomic_read(&fs.root()->d_count);
  struct dentry *dentry = d_alloc(fs.root(), &q);
  REQUIRE_TRUE(dentry);
  buf[0] = 'x';
  EXPECT_STREQ(text(dentry), "abc");
  EXPECT_EQ(dentry->d_name.len, 3u);
  EXPECT_EQ(atomic_read(&dentry->d_count), 1);
  EXPECT_TRUE(dentry->d_parent == fs.root());
  EXPECT_TRUE(dentry->d_sb == fs.sb());
  EXPECT_TRUE(d_unhashed(dentry));
  EXPECT_TRUE(dentry->d_inode == NULL);
  EXPECT_EQ(atomic_read(&fs.root()->d_count), before + 1);
  dput(dentry);
  EXPECT_EQ(atomic_read(&fs.root()->d_count), before);
}

CASE(dcache, long_name) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), kLong, 0);
  REQUIRE_TRUE(dentry);
  EXPECT_TRUE(dname_external(dentry));
  EXPECT_STREQ(text(dentry), kLong);
  dput(dentry);
  dentry = testfs::lookup(fs.root(), kLong);
  EXPECT_TRUE(dentry);
  dput(dentry);
}

CASE(dcache, negative_dentry_is_kept) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "gone", 0);
  REQUIRE_TRUE(dentry);
  dput(dentry);
  EXPECT_EQ(fs.n.released, 0);
  struct dentry *again = testfs::lookup(fs.root(), "gone");
  EXPECT_TRUE(again == dentry);
  EXPECT_TRUE(again && again->d_inode == NULL);
  dput(again);
}

CASE(dcache, lookup_is_by_parent_and_whole_name) {
  testfs fs;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  struct dentry *file = fs.add(dir, "name", S_IFREG | 0644);
  REQUIRE_TRUE(dir && file);
  EXPECT_TRUE(testfs::lookup(fs.root(), "name") == NULL);
  EXPECT_TRUE(testfs::lookup(dir, "nam") == NULL);
  EXPECT_TRUE(testfs::lookup(dir, "name2") == NULL);
  struct dentry *found = testfs::lookup(dir, "name");
  EXPECT_TRUE(found == file);
  EXPECT_EQ(atomic_read(&file->d_count), 2);
  dput(found);
  dput(file);
  dput(dir);
}

// More than the hash has chains for at first, and again after it has grown.
CASE(dcache, as_many_as_there_are) {
  constexpr int kMany = 6000;
  static struct dentry *held[kMany];
  testfs fs;
  char text[16];
  for (int i = 0; i < kMany; i++) {
    snprintf(text, sizeof(text), "n%d", i);
    held[i] = fs.add(fs.root(), text, 0);
    REQUIRE_TRUE(held[i]);
  }
  for (int i = 0; i < kMany; i++) {
    snprintf(text, sizeof(text), "n%d", i);
    struct dentry *found = testfs::lookup(fs.root(), text);
    EXPECT_TRUE(found == held[i]);
    dput(found);
  }
  for (struct dentry *dentry : held) dput(dentry);
}

CASE(dcache, dropped_dentry_is_not_found_and_goes_with_its_last_user) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "a", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  d_drop(dentry);
  EXPECT_TRUE(d_unhashed(dentry));
  EXPECT_TRUE(testfs::lookup(fs.root(), "a") == NULL);
  d_drop(dentry);
  EXPECT_EQ(fs.n.released, 0);
  dput(dentry);
  EXPECT_EQ(fs.n.released, 1);
  EXPECT_EQ(fs.n.iputs, 1);
}

CASE(dcache, freed_dentry_gives_up_its_parents) {
  testfs fs;
  struct dentry *a = fs.add(fs.root(), "a", S_IFDIR | 0755);
  struct dentry *b = fs.add(a, "b", S_IFDIR | 0755);
  struct dentry *c = fs.add(b, "c", S_IFREG | 0644);
  REQUIRE_TRUE(a && b && c);
  d_drop(a);
  d_drop(b);
  d_drop(c);
  dput(a);
  dput(b);
  EXPECT_EQ(fs.n.released, 0);
  dput(c);
  EXPECT_EQ(fs.n.released, 3);
}

static int never_keep(struct dentry *) {
  return 1;
}

CASE(dcache, d_delete_operation_decides_about_keeping) {
  testfs fs;
  fs.dentry_ops.d_delete = never_keep;
  struct dentry *dentry = fs.add(fs.root(), "a", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  dget(dentry);
  dput(dentry);
  EXPECT_EQ(fs.n.released, 0);
  dput(dentry);
  EXPECT_EQ(fs.n.released, 1);
  EXPECT_TRUE(testfs::lookup(fs.root(), "a") == NULL);
}

CASE(dcache, d_delete_by_the_only_user_leaves_a_negative_dentry) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "a", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  d_delete(dentry);
  EXPECT_TRUE(dentry->d_inode == NULL);
  EXPECT_FALSE(d_unhashed(dentry));
  EXPECT_EQ(fs.n.iputs, 1);
  dput(dentry);
}

CASE(dcache, d_delete_with_other_users_unhashes) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "a", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  dget(dentry);
  d_delete(dentry);
  EXPECT_TRUE(dentry->d_inode != NULL);
  EXPECT_TRUE(d_unhashed(dentry));
  dput(dentry);
  EXPECT_EQ(fs.n.iputs, 0);
  dput(dentry);
  EXPECT_EQ(fs.n.iputs, 1);
}

static int same_but_for_case(struct dentry *, struct qstr *a, struct qstr *b) {
  if (a->len != b->len) return 1;
  for (unsigned i = 0; i < a->len; i++)
    if ((a->name[i] | 0x20) != (b->name[i] | 0x20)) return 1;
  return 0;
}

CASE(dcache, d_compare_of_the_parent_decides) {
  testfs fs;
  struct dentry_operations ops = {};
  ops.d_compare = same_but_for_case;
  fs.root()->d_op = &ops;
  struct qstr q = testfs::name("Name");
  struct dentry *dentry = d_alloc(fs.root(), &q);
  REQUIRE_TRUE(dentry);
  d_add(dentry, NULL);
  struct qstr other = testfs::name("nAME");
  other.hash = q.hash;
  struct dentry *found = d_lookup(fs.root(), &other);
  EXPECT_TRUE(found == dentry);
  dput(found);
  d_drop(dentry);
  dput(dentry);
  fs.root()->d_op = NULL;
}

static void move_and_check(const char *from, const char *to) {
  testfs fs;
  struct dentry *a = fs.add(fs.root(), "a", S_IFDIR | 0755);
  struct dentry *b = fs.add(fs.root(), "b", S_IFDIR | 0755);
  struct dentry *dentry = fs.add(a, from, S_IFREG | 0644);
  struct dentry *target = fs.add(b, to, 0);
  REQUIRE_TRUE(a && b && dentry && target);
  const int a_count = atomic_read(&a->d_count);
  const int b_count = atomic_read(&b->d_count);

  d_move(dentry, target);
  EXPECT_STREQ(text(dentry), to);
  EXPECT_EQ(dentry->d_name.len, strlen(to));
  EXPECT_TRUE(dentry->d_parent == b);
  EXPECT_TRUE(target->d_parent == a);
  EXPECT_TRUE(d_unhashed(target));
  EXPECT_TRUE(testfs::lookup(a, from) == NULL);
  struct dentry *found = testfs::lookup(b, to);
  EXPECT_TRUE(found == dentry);
  dput(found);
  EXPECT_EQ(atomic_read(&a->d_count), a_count);
  EXPECT_EQ(atomic_read(&b->d_count), b_count);
  dput(target);
  dput(dentry);
  dput(a);
  dput(b);
}

CASE(dcache, move_short_to_short) {
  move_and_check("old", "new name");
}
CASE(dcache, move_short_to_long) {
  move_and_check("old", kLong);
}
CASE(dcache, move_long_to_short) {
  move_and_check(kLong, "new");
}
CASE(dcache, move_long_to_long) {
  move_and_check(kLong, kLonger);
}

// What was moved away from leaves its length and its hash to the target, and its text only where
// that is not kept inside the dentry.
static void move_and_check_what_is_left(const char *from, const char *to, const char *left) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), from, S_IFREG | 0644);
  struct dentry *target = fs.add(fs.root(), to, 0);
  REQUIRE_TRUE(dentry && target);
  d_move(dentry, target);
  EXPECT_EQ(target->d_name.len, strlen(from));
  EXPECT_EQ(target->d_name.hash, testfs::name(from).hash);
  EXPECT_EQ(dentry->d_name.hash, testfs::name(to).hash);
  EXPECT_EQ(dname_external(target) != 0, strlen(from) >= DNAME_INLINE_LEN_MIN);
  EXPECT_EQ(dname_external(dentry) != 0, strlen(to) >= DNAME_INLINE_LEN_MIN);
  if (left) EXPECT_STREQ(text(target), left);
  dput(target);
  dput(dentry);
}

CASE(dcache, a_short_target_of_a_short_name_keeps_its_text) {
  move_and_check_what_is_left("moved", "taken", "taken");
  move_and_check_what_is_left("old", "new name", "new name");
  move_and_check_what_is_left("old name", "new", "new");
}
CASE(dcache, a_target_gets_the_text_of_a_long_name) {
  move_and_check_what_is_left(kLong, "new", kLong);
  move_and_check_what_is_left(kLong, kLonger, kLong);
}
CASE(dcache, a_long_target_of_a_short_name_loses_its_text) {
  move_and_check_what_is_left("old", kLong, NULL);
}

CASE(dcache, splice_without_alias_adds) {
  testfs fs;
  struct dentry *dentry = fs.alloc(fs.root(), "a");
  REQUIRE_TRUE(dentry);
  EXPECT_TRUE(d_splice_alias(fs.inode(S_IFREG | 0644), dentry) == NULL);
  EXPECT_TRUE(dentry->d_inode != NULL);
  EXPECT_FALSE(d_unhashed(dentry));
  struct dentry *negative = fs.alloc(fs.root(), "b");
  REQUIRE_TRUE(negative);
  EXPECT_TRUE(d_splice_alias(NULL, negative) == NULL);
  EXPECT_FALSE(d_unhashed(negative));
  dput(negative);
  dput(dentry);
}

CASE(dcache, splice_ignores_a_connected_alias) {
  testfs fs;
  struct dentry *one = fs.add(fs.root(), "one", S_IFREG | 0644);
  struct dentry *two = fs.alloc(fs.root(), "two");
  REQUIRE_TRUE(one && two);
  EXPECT_TRUE(d_splice_alias(igrab(one->d_inode), two) == NULL);
  EXPECT_TRUE(two->d_inode == one->d_inode);
  dput(two);
  dput(one);
}

CASE(dcache, splice_moves_a_disconnected_directory_into_place) {
  testfs fs;
  struct dentry *loose = d_alloc_root(fs.inode(S_IFDIR | 0755));
  struct dentry *dentry = fs.alloc(fs.root(), "dir");
  REQUIRE_TRUE(loose && dentry);
  loose->d_flags |= DCACHE_DISCONNECTED;
  struct dentry *spliced = d_splice_alias(igrab(loose->d_inode), dentry);
  EXPECT_TRUE(spliced == loose);
  EXPECT_TRUE(loose->d_parent == fs.root());
  EXPECT_STREQ(text(loose), "dir");
  struct dentry *found = testfs::lookup(fs.root(), "dir");
  EXPECT_TRUE(found == loose);
  dput(found);
  dput(spliced);
  dput(dentry);
  dput(loose);
}

CASE(dcache, find_alias_prefers_hashed_ones) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "a", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  struct dentry *alias = d_find_alias(dentry->d_inode);
  EXPECT_TRUE(alias == dentry);
  dput(alias);
  d_drop(dentry);
  EXPECT_TRUE(d_find_alias(dentry->d_inode) == NULL);
  dput(dentry);
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  REQUIRE_TRUE(dir);
  d_drop(dir);
  alias = d_find_alias(dir->d_inode);
  EXPECT_TRUE(alias == dir);
  dput(alias);
  dput(dir);
}

CASE(dcache, prune_aliases_frees_the_unused_ones) {
  testfs fs;
  struct dentry *one = fs.add(fs.root(), "one", S_IFREG | 0644);
  struct dentry *two = fs.alloc(fs.root(), "two");
  REQUIRE_TRUE(one && two);
  struct inode *inode = igrab(one->d_inode);
  d_add(two, igrab(inode));
  dput(two);
  d_prune_aliases(inode);
  EXPECT_EQ(fs.n.released, 1);
  EXPECT_TRUE(testfs::lookup(fs.root(), "two") == NULL);
  dput(one);
  iput(inode);
}

CASE(dcache, invalidate_leaves_a_used_directory) {
  testfs fs;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  struct dentry *file = fs.add(fs.root(), "file", S_IFREG | 0644);
  REQUIRE_TRUE(dir && file);
  dget(dir);
  dget(file);
  EXPECT_EQ(d_invalidate(dir), -EBUSY);
  EXPECT_FALSE(d_unhashed(dir));
  EXPECT_EQ(d_invalidate(file), 0);
  EXPECT_TRUE(d_unhashed(file));
  EXPECT_EQ(d_invalidate(file), 0);
  dput(dir);
  dput(file);
  struct dentry *unused = fs.add(dir, "unused", S_IFREG | 0644);
  REQUIRE_TRUE(unused);
  dput(unused);
  EXPECT_EQ(d_invalidate(dir), 0);
  EXPECT_TRUE(d_unhashed(dir));
  dput(dir);
  dput(file);
}

CASE(dcache, shrink_parent_frees_the_unused_tree) {
  testfs fs;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  struct dentry *used = fs.add(dir, "used", S_IFREG | 0644);
  REQUIRE_TRUE(dir && used);
  struct dentry *at = dget(dir);
  for (int depth = 0; depth < 20; depth++) {
    struct dentry *next = fs.add(at, "d", S_IFDIR | 0755);
    REQUIRE_TRUE(next);
    dput(fs.add(next, "f", S_IFREG | 0644));
    dput(at);
    at = next;
  }
  dput(at);
  shrink_dcache_parent(dir);
  EXPECT_EQ(fs.n.released, 40);
  EXPECT_FALSE(d_unhashed(used));
  dput(used);
  dput(dir);
}

CASE(dcache, dget_parent_takes_a_reference) {
  testfs fs;
  struct dentry *dentry = fs.add(fs.root(), "a", S_IFREG | 0644);
  REQUIRE_TRUE(dentry);
  const int before = atomic_read(&fs.root()->d_count);
  struct dentry *parent = dget_parent(dentry);
  EXPECT_TRUE(parent == fs.root());
  EXPECT_EQ(atomic_read(&parent->d_count), before + 1);
  dput(parent);
  EXPECT_EQ(parent_ino(dentry), fs.root()->d_inode->i_ino);
  dput(dentry);
}

static void kill_litter(struct super_block *sb) {
  kill_litter_super(sb);
}

CASE(dcache, litter_super_frees_a_tree_held_by_nobody_else) {
  testfs fs;
  fs.type.kill_sb = kill_litter;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  struct dentry *file = fs.add(dir, "file", S_IFREG | 0644);
  REQUIRE_TRUE(dir && file);
  // Each keeps the reference that its creator holds in such a file system.
  fs.unmount();
  EXPECT_EQ(fs.n.released, 2);
  EXPECT_EQ(fs.n.put_supers, 1);
}

CASE(dcache, unmount_frees_what_is_unused) {
  testfs fs;
  struct dentry *dir = fs.add(fs.root(), "dir", S_IFDIR | 0755);
  REQUIRE_TRUE(dir);
  for (int i = 0; i < 100; i++) {
    char name[16];
    sprintf(name, "f%d", i);
    dput(fs.add(dir, name, i % 2 ? S_IFREG | 0644 : 0));
  }
  dput(dir);
  fs.unmount();
  EXPECT_EQ(fs.n.released, 101);
  EXPECT_EQ(fs.n.killed, 1);
}

CASE(dcache, name_hash_covers_every_byte) {
  const unsigned char a[] = "abc", b[] = "acb";
  EXPECT_NE(full_name_hash(a, 3), full_name_hash(b, 3));
  unsigned long h = init_name_hash();
  for (int i = 0; i < 3; i++) h = partial_name_hash(a[i], h);
  EXPECT_EQ((unsigned)end_name_hash(h), full_name_hash(a, 3));
}
