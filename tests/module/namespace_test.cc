// SPDX-License-Identifier: GPL-2.0
// Making and removing names: what happens below, what the upper directory shows, and which records
// come in which order.
#include "tests/module/kit/mount.h"
#include "tests/ukern/threads.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_fault.h"

namespace {

bool hashed(const char *path) {
  const test_path at(path);
  struct dentry *dentry = test_cached(at.dir, at.name);
  if (dentry) dput(dentry);
  return dentry != nullptr;
}

// The dentry of a name that is looked up and does not exist, with a reference.
struct dentry *negative(const char *dir, const char *name) {
  char path[256];
  snprintf(path, sizeof(path), "%s/%s", dir, name);
  { const test_walk missing(path); }
  return test_cached(dir, name);
}

}  // namespace

MODULE_CASE(namespace, create_yields_a_create_record_then_an_attribute_record) {
  replicated r;
  {
    test_file file("/mnt/f", O_CREAT | O_WRONLY);
    EXPECT_EQ(file.error(), 0);
  }
  EXPECT_TRUE(test_exists("/lower/f"));

  const test_message &first = r.daemon.next();
  EXPECT_EQ(first.type(), OX_OP_COLLECT);
  EXPECT_EQ(first.op(), OX_OP_CREATE);
  EXPECT_EQ(first.msg()->wseq, 1u);
  EXPECT_STREQ(first.path1(), "/lower/f");
  EXPECT_EQ(first.para()->dlen2, 0);
  EXPECT_EQ(first.para()->mode & 07777, 0644u);

  const test_message &second = r.daemon.next();
  EXPECT_EQ(second.op(), OX_OP_SETATTR);
  EXPECT_EQ(second.msg()->wseq, 2u);
  EXPECT_EQ(second.attr()->com.ia_valid, 0x47);
  EXPECT_EQ(second.attr()->com.ia_size, 0ull);
  EXPECT_EQ(second.attr()->sec.ia_uid, 0u);
  EXPECT_STREQ(second.attr()->name, "/lower/f");
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(namespace, create_gives_the_directory_the_lower_times_and_size) {
  test_mount mount;
  const test_walk lower("/lower");
  const test_walk upper("/mnt");
  lower.inode()->i_ctime.tv_sec = 1;
  EXPECT_EQ(test_put("/mnt/f", "x"), 1);
  EXPECT_EQ(upper.inode()->i_mtime.tv_sec, lower.inode()->i_mtime.tv_sec);
  EXPECT_EQ(upper.inode()->i_ctime.tv_sec, lower.inode()->i_ctime.tv_sec);
  EXPECT_NE(upper.inode()->i_ctime.tv_sec, 1);
  EXPECT_EQ(i_size_read(upper.inode()), i_size_read(lower.inode()));
}

MODULE_CASE(namespace, mkdir_yields_two_records_and_counts_the_directory_s_links) {
  replicated r;
  EXPECT_EQ(test_mkdir("/mnt/d", 0750), 0);
  EXPECT_TRUE(test_exists("/lower/d"));
  const test_walk upper("/mnt");
  const test_walk lower("/lower");
  EXPECT_EQ(upper.inode()->i_nlink, lower.inode()->i_nlink);

  const test_message &first = r.daemon.next();
  EXPECT_EQ(first.op(), OX_OP_MKDIR);
  EXPECT_STREQ(first.path1(), "/lower/d");
  EXPECT_EQ(first.para()->mode & 07777, 0750u);
  const test_message &second = r.daemon.next();
  EXPECT_EQ(second.op(), OX_OP_SETATTR);
  EXPECT_EQ(second.attr()->com.ia_valid, 0x47);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(namespace, fifo_is_made_below_and_not_recorded) {
  replicated r;
  EXPECT_EQ(test_mknod("/mnt/fifo", S_IFIFO | 0640, 0), 0);
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/fifo", &stat), 0);
  EXPECT_TRUE(S_ISFIFO(stat.mode));
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(namespace, refused_rmdir_is_recorded_all_the_same) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  EXPECT_EQ(test_rmdir("/mnt/d"), -ENOTEMPTY);
  EXPECT_TRUE(test_exists("/lower/d"));
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_RMDIR);
  EXPECT_STREQ(record.path1(), "/lower/d");
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(namespace, rmdir_removes_below_and_records_the_path_it_had) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/mnt/d"), 0);
  EXPECT_EQ(r.daemon.drain(), 2);
  EXPECT_EQ(test_rmdir("/mnt/d"), 0);
  EXPECT_FALSE(test_exists("/lower/d"));
  EXPECT_FALSE(test_exists("/mnt/d"));
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_RMDIR);
  EXPECT_STREQ(record.path1(), "/lower/d");
  EXPECT_TRUE(r.daemon.idle());
  const test_walk upper("/mnt");
  const test_walk lower("/lower");
  EXPECT_EQ(upper.inode()->i_nlink, lower.inode()->i_nlink);
}

MODULE_CASE(namespace, link_drops_both_names_and_records_both_paths) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/a", "data"), 4);
  const test_walk old("/mnt/a");
  const test_walk dir("/mnt");
  struct dentry *fresh = negative("/mnt", "b");
  REQUIRE_TRUE(fresh);
  {
    mutex_guard parent(dir.inode()->i_mutex, I_MUTEX_PARENT);
    EXPECT_EQ(tarn_dir_iops.link(old.dentry(), dir.inode(), fresh), 0);
  }
  EXPECT_TRUE(d_unhashed(old.dentry()));
  EXPECT_TRUE(d_unhashed(fresh));
  EXPECT_TRUE(d_unhashed(tarn_lower_dentry(old.dentry())));
  EXPECT_EQ(fresh->d_inode, old.inode());
  EXPECT_EQ(old.inode()->i_nlink, 2u);
  EXPECT_EQ(i_size_read(old.inode()), 4);
  dput(fresh);

  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_LINK);
  EXPECT_STREQ(record.path1(), "/lower/a");
  EXPECT_STREQ(record.path2(), "/lower/b");
  EXPECT_EQ(record.para()->mode, 0u);
  EXPECT_TRUE(r.daemon.idle());

  const test_walk lower("/lower");
  const unsigned long lookups = memfs_calls(lower.dentry()->d_sb, MEMFS_OP_LOOKUP);
  struct uk_stat a = {};
  struct uk_stat b = {};
  EXPECT_EQ(test_stat("/mnt/a", &a), 0);
  EXPECT_EQ(test_stat("/mnt/b", &b), 0);
  EXPECT_LT(lookups, memfs_calls(lower.dentry()->d_sb, MEMFS_OP_LOOKUP));
  EXPECT_TRUE(hashed("/mnt/a"));
  EXPECT_TRUE(hashed("/mnt/b"));
  EXPECT_EQ(a.ino, b.ino);
  EXPECT_EQ(a.nlink, 2u);
  EXPECT_EQ(b.size, 4ull);
}

MODULE_CASE(namespace, refused_link_drops_the_names_too) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  const test_walk old("/mnt/a");
  const test_walk dir("/mnt");
  const test_walk lower("/lower");
  struct dentry *fresh = negative("/mnt", "b");
  REQUIRE_TRUE(fresh);
  memfs_fail(lower.dentry()->d_sb, MEMFS_OP_LINK, -EMLINK, 1);
  {
    mutex_guard parent(dir.inode()->i_mutex, I_MUTEX_PARENT);
    EXPECT_EQ(tarn_dir_iops.link(old.dentry(), dir.inode(), fresh), -EMLINK);
  }
  EXPECT_TRUE(d_unhashed(old.dentry()));
  EXPECT_TRUE(d_unhashed(fresh));
  EXPECT_TRUE(d_unhashed(tarn_lower_dentry(old.dentry())));
  dput(fresh);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(namespace, open_file_s_last_name_goes_and_is_recorded_as_it_was) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  test_file file("/mnt/f", O_RDWR);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(test_unlink("/mnt/f"), 0);
  EXPECT_FALSE(test_exists("/mnt/f"));
  EXPECT_FALSE(test_exists("/lower/f"));
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_UNLINK);
  EXPECT_STREQ(record.path1(), "/lower/f");
  EXPECT_EQ(record.para()->dlen2, 0);
  char text[8] = {};
  EXPECT_EQ(file.read(text, 4, 0), 4);
  EXPECT_STREQ(text, "text");
  EXPECT_EQ(file.write("more", 4, 4), 4);
}

MODULE_CASE(namespace, unlink_refreshes_the_other_name_s_inode) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  REQUIRE_EQ(test_link("/lower/a", "/lower/b"), 0);
  const test_walk b("/mnt/b");
  REQUIRE_EQ(b.error(), 0);
  EXPECT_EQ(test_unlink("/mnt/a"), 0);
  EXPECT_EQ(b.inode()->i_nlink, 1u);
  const test_walk dir("/mnt");
  EXPECT_EQ(b.inode()->i_ctime.tv_sec, dir.inode()->i_ctime.tv_sec);
}

MODULE_CASE(namespace, symbolic_link_has_all_mode_bits_whatever_the_umask) {
  replicated r;
  const int umask = current->fs->umask;
  current->fs->umask = 077;
  EXPECT_EQ(test_symlink("../target", "/mnt/l"), 0);
  current->fs->umask = umask;
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/l", &stat), 0);
  EXPECT_EQ(stat.mode & (S_IFMT | 0777), S_IFLNK | 0777u);

  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_SYMLINK);
  EXPECT_STREQ(record.path1(), "/lower/l");
  EXPECT_STREQ(record.path2(), "../target");
  EXPECT_EQ(record.para()->mode, 4095u);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(namespace, refused_creations_leave_no_negative_name_except_create) {
  replicated r;
  const test_walk lower("/lower");
  struct super_block *sb = lower.dentry()->d_sb;
  memfs_fail(sb, MEMFS_OP_MKDIR, -ENOSPC, 1);
  memfs_fail(sb, MEMFS_OP_MKNOD, -ENOSPC, 1);
  memfs_fail(sb, MEMFS_OP_SYMLINK, -ENOSPC, 1);
  memfs_fail(sb, MEMFS_OP_CREATE, -ENOSPC, 1);
  EXPECT_EQ(test_mkdir("/mnt/dir"), -ENOSPC);
  EXPECT_EQ(test_mknod("/mnt/fifo", S_IFIFO | 0600, 0), -ENOSPC);
  EXPECT_EQ(test_symlink("x", "/mnt/link"), -ENOSPC);
  EXPECT_EQ(test_put("/mnt/file", "x"), -ENOSPC);
  EXPECT_FALSE(hashed("/mnt/dir"));
  EXPECT_FALSE(hashed("/mnt/fifo"));
  EXPECT_FALSE(hashed("/mnt/link"));
  EXPECT_TRUE(hashed("/mnt/file"));
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(namespace, creation_gives_the_lookup_record_its_own_path_back) {
  test_mount mount;
  const test_walk dir("/mnt");
  struct dentry *dentry = negative("/mnt", "f");
  REQUIRE_TRUE(dentry);
  static struct inode_operations *own;
  static struct nameidata lent;
  struct inode *lower_dir = tarn_lower_inode(dir.inode());
  own = lower_dir->i_op;
  struct inode_operations watched = *own;
  watched.create = [](struct inode *in, struct dentry *name, int mode,
                      struct nameidata *nd) -> int {
    lent = *nd;
    return own->create(in, name, mode, nd);
  };
  lower_dir->i_op = &watched;
  struct nameidata nd;
  memset(&nd, 0, sizeof(nd));
  nd.dentry = dir.dentry();
  nd.mnt = dir.mnt();
  mutex_lock(&dir.inode()->i_mutex);
  EXPECT_EQ(tarn_dir_iops.create(dir.inode(), dentry, S_IFREG | 0600, &nd), 0);
  mutex_unlock(&dir.inode()->i_mutex);
  lower_dir->i_op = own;
  EXPECT_EQ(lent.dentry, tarn_lower_dentry(dentry));
  EXPECT_EQ(lent.mnt, tarn_lower_mnt(dentry));
  EXPECT_EQ(nd.dentry, dir.dentry());
  EXPECT_EQ(nd.mnt, dir.mnt());
  EXPECT_TRUE(test_exists("/lower/f"));
  dput(dentry);
}

MODULE_CASE(namespace, change_outside_every_rule_is_not_recorded) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(test_mkdir("/lower/in"), 0);
  REQUIRE_EQ(test_mkdir("/lower/out"), 0);
  REQUIRE_EQ(install_rule('r', "/lower/in"), 0);
  EXPECT_EQ(test_mkdir("/mnt/out/d"), 0);
  EXPECT_TRUE(daemon.idle());
  EXPECT_EQ(test_mkdir("/mnt/in/d"), 0);
  EXPECT_EQ(daemon.drain(), 2);
  do_flush(0);
}

// Each allocation of an unlink fails once. Where it was the path's the change is not recorded,
// where it was the record's the rule stops; the name is gone either way.
MODULE_CASE(namespace, unlink_works_without_memory_for_its_capture) {
  replicated r;
  int unrecorded = 0;
  for (unsigned long n = 1;; n++) {
    REQUIRE_EQ(test_put("/lower/f", "x"), 1);
    { const test_walk upper("/mnt/f"); }
    const test_walk dir("/mnt");
    const test_walk victim("/mnt/f");
    r.daemon.drain();
    mutex_lock(&dir.inode()->i_mutex);
    uk_fault_arm(n);
    const int rc = tarn_dir_iops.unlink(dir.inode(), victim.dentry());
    const bool reached = uk_fault_count() >= n;
    uk_fault_arm(0);
    mutex_unlock(&dir.inode()->i_mutex);
    EXPECT_EQ(rc, 0);
    EXPECT_FALSE(test_exists("/lower/f"));
    if (!reached) break;
    const test_message &record = r.daemon.next();
    if (record.op() != OX_OP_UNLINK) unrecorded++;
    do_flush(0);
    REQUIRE_EQ(install_rule('r', "/lower"), 0);
  }
  EXPECT_LE(2, unrecorded);
}

// Each allocation of each call fails once, wherever in the kernel it is: the call succeeds or has
// an error, and whatever it held is given back (the end of the case would report it).
MODULE_CASE(namespace, every_failing_allocation_of_every_call_is_undone) {
  replicated r;
  struct step {
    int (*call)(void);
    void (*undo)(void);
  };
  static const struct step steps[] = {
      {[]() -> int { return test_mkdir("/mnt/d"); }, [] { test_rmdir("/mnt/d"); }},
      {[]() -> int { return test_symlink("x", "/mnt/l"); }, [] { test_unlink("/mnt/l"); }},
      {[]() -> int { return test_mknod("/mnt/p", S_IFIFO | 0600, 0); },
       [] { test_unlink("/mnt/p"); }},
      {[]() -> int { return test_put("/mnt/f", "text") < 0; }, [] { test_unlink("/mnt/f"); }},
      {[]() -> int { return test_link("/mnt/kept", "/mnt/h"); }, [] { test_unlink("/mnt/h"); }},
      {[]() -> int { return test_rename("/mnt/kept", "/mnt/moved"); },
       [] { test_rename("/mnt/moved", "/mnt/kept"); }},
  };
  REQUIRE_EQ(test_put("/lower/kept", "x"), 1);
  for (const struct step &step : steps) {
    for (unsigned long n = 1;; n++) {
      uk_drop_caches();
      uk_fault_arm(n);
      step.call();
      const bool reached = uk_fault_count() >= n;
      uk_fault_arm(0);
      step.undo();
      r.daemon.drain();
      do_flush(0);
      REQUIRE_EQ(install_rule('r', "/lower"), 0);
      if (!reached) break;
    }
  }
  EXPECT_TRUE(test_holds("/lower/kept", "x"));
}

// What was renamed by another way has left the lower directory that this name was looked up in.
MODULE_CASE(namespace, name_whose_object_was_moved_below_is_stale) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  { const test_walk upper("/mnt/f"); }
  REQUIRE_EQ(test_rename("/lower/f", "/lower/d/f"), 0);
  EXPECT_EQ(test_unlink("/mnt/f"), -ESTALE);
  EXPECT_TRUE(test_exists("/lower/d/f"));
  EXPECT_FALSE(test_exists("/mnt/f"));
  EXPECT_TRUE(r.daemon.idle());
  EXPECT_EQ(test_unlink("/mnt/d/f"), 0);
}

// Something was moved below to a name that is known not to exist, and has left its own name to the
// lower dentry of that name: nothing is made in its old place.
MODULE_CASE(namespace, creation_at_a_name_that_was_taken_below_is_stale) {
  static int (*const makers[])(void) = {
      [] { return static_cast<int>(test_put("/mnt/x", "new")); },
      [] { return test_mkdir("/mnt/x"); },
      [] { return test_mknod("/mnt/x", S_IFIFO | 0600, 0); },
      [] { return test_symlink("to", "/mnt/x"); },
      [] { return test_link("/mnt/other", "/mnt/x"); },
  };
  for (int (*make)(void) : makers) {
    replicated r;
    REQUIRE_EQ(test_put("/lower/y", "moved"), 5);
    REQUIRE_EQ(test_put("/lower/other", "x"), 1);
    EXPECT_FALSE(test_exists("/mnt/x"));
    REQUIRE_EQ(test_rename("/lower/y", "/lower/x"), 0);
    EXPECT_EQ(make(), -ESTALE);
    EXPECT_FALSE(test_exists("/lower/y"));
    EXPECT_TRUE(test_holds("/mnt/x", "moved"));
    EXPECT_TRUE(r.daemon.idle());
  }
}

// A move to it does not end in the old place either.
MODULE_CASE(namespace, move_to_a_name_that_was_taken_below_is_stale) {
  replicated r;
  REQUIRE_EQ(test_put("/lower/y", "moved"), 5);
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  EXPECT_FALSE(test_exists("/mnt/x"));
  REQUIRE_EQ(test_rename("/lower/y", "/lower/x"), 0);
  EXPECT_EQ(test_rename("/mnt/f", "/mnt/x"), -ESTALE);
  EXPECT_FALSE(test_exists("/lower/y"));
  EXPECT_TRUE(test_holds("/mnt/f", "x"));
  EXPECT_TRUE(test_holds("/mnt/x", "moved"));
  EXPECT_TRUE(r.daemon.idle());
}

namespace {

unsigned char lower_case(unsigned char c) {
  return c >= 'A' && c <= 'Z' ? c | 0x20 : c;
}

int hash_ignoring_case(struct dentry *, struct qstr *name) {
  unsigned long hash = init_name_hash();
  for (unsigned i = 0; i < name->len; i++)
    hash = partial_name_hash(lower_case(name->name[i]), hash);
  name->hash = static_cast<unsigned>(end_name_hash(hash));
  return 0;
}

int compare_ignoring_case(struct dentry *, struct qstr *a, struct qstr *b) {
  if (a->len != b->len) return 1;
  for (unsigned i = 0; i < a->len; i++)
    if (lower_case(a->name[i]) != lower_case(b->name[i])) return 1;
  return 0;
}

// Makes the lower directory take names that differ in case only for one.
class ignored_case {
 public:
  ignored_case() { lower_.dentry()->d_op = &ops_; }
  ~ignored_case() {
    uk_drop_caches();
    lower_.dentry()->d_op = nullptr;
  }

 private:
  struct dentry_operations ops_ = {.d_hash = hash_ignoring_case,
                                   .d_compare = compare_ignoring_case};
  const test_walk lower_{"/lower"};
};

}  // namespace

// What is known not to exist below under another spelling may be made all the same; what was moved
// there is found.
MODULE_CASE(namespace, creation_below_a_directory_that_ignores_case) {
  replicated r;
  const ignored_case ignored;
  EXPECT_FALSE(test_exists("/lower/name"));
  EXPECT_EQ(test_mkdir("/mnt/NAME"), 0);
  EXPECT_TRUE(test_exists("/lower/name"));
  EXPECT_EQ(test_rmdir("/mnt/NAME"), 0);

  REQUIRE_EQ(test_mkdir("/lower/old"), 0);
  EXPECT_FALSE(test_exists("/mnt/new"));
  REQUIRE_EQ(test_rename("/lower/old", "/lower/NEW"), 0);
  EXPECT_EQ(test_mkdir("/mnt/new"), -ESTALE);
  EXPECT_EQ(test_rmdir("/mnt/new"), 0);
}

// The same for a move to another directory.
MODULE_CASE(namespace, creation_at_a_name_taken_from_elsewhere_is_stale) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/x", "moved"), 5);
  EXPECT_FALSE(test_exists("/mnt/x"));
  REQUIRE_EQ(test_rename("/lower/d/x", "/lower/x"), 0);
  EXPECT_EQ(test_mkdir("/mnt/x"), -ESTALE);
  EXPECT_FALSE(test_exists("/lower/d/x"));
  EXPECT_TRUE(test_holds("/mnt/x", "moved"));

  REQUIRE_EQ(test_put("/lower/d/z", "moved"), 5);
  EXPECT_FALSE(test_exists("/mnt/z"));
  REQUIRE_EQ(test_rename("/lower/d/z", "/lower/z"), 0);
  EXPECT_EQ(test_rename("/mnt/x", "/mnt/z"), -ESTALE);
  EXPECT_FALSE(test_exists("/lower/d/z"));
  EXPECT_TRUE(test_holds("/mnt/z", "moved"));
}

namespace {

int (*remover)(const char *);
const char *removed_path;
int removed_result;
bool remover_is_done;

void remove_it(void *) {
  removed_result = remover(removed_path);
  __atomic_store_n(&remover_is_done, true, __ATOMIC_RELEASE);
}

// Starts the removal of /mnt/d/`name`, lets it wait for the lock of the lower directory, and moves
// the lower object to /lower/e meanwhile. What the removal says.
int removal_overtaken_by_a_move(int (*remove)(const char *), const char *path, const char *name) {
  const test_walk d("/lower/d"), e("/lower/e");
  struct ThreadTeam team;
  remover = remove;
  removed_path = path;
  remover_is_done = false;
  lock_rename(d.dentry(), e.dentry());
  const int len = static_cast<int>(strlen(name));
  struct dentry *from = lookup_one_len(name, d.dentry(), len);
  struct dentry *to = lookup_one_len(name, e.dentry(), len);
  EXPECT_TRUE(thread_team_start(&team, 1, remove_it, nullptr));
  const volatile unsigned *word = &d.inode()->i_mutex.word;
  while (__atomic_load_n(word, __ATOMIC_RELAXED) != 2 &&
         !__atomic_load_n(&remover_is_done, __ATOMIC_ACQUIRE))
    msleep(1);
  EXPECT_EQ(vfs_rename(d.inode(), from, e.inode(), to), 0);
  unlock_rename(d.dentry(), e.dentry());
  thread_team_wait(&team, 1);
  dput(from);
  dput(to);
  return removed_result;
}

}  // namespace

// The lower object moves away while its removal waits for the lower directory's lock.
MODULE_CASE(namespace, removal_overtaken_by_a_move_below_is_stale) {
  replicated r;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_mkdir("/lower/e"), 0);
  REQUIRE_EQ(test_mkdir("/lower/d/sub"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  EXPECT_TRUE(test_exists("/mnt/d/sub"));
  EXPECT_TRUE(test_exists("/mnt/d/f"));
  EXPECT_EQ(removal_overtaken_by_a_move(test_unlink, "/mnt/d/f", "f"), -ESTALE);
  EXPECT_EQ(removal_overtaken_by_a_move(test_rmdir, "/mnt/d/sub", "sub"), -ESTALE);
  EXPECT_TRUE(test_exists("/lower/e/f"));
  EXPECT_TRUE(test_exists("/lower/e/sub"));
  EXPECT_TRUE(r.daemon.idle());
}
