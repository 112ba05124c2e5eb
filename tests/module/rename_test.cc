// SPDX-License-Identifier: GPL-2.0
// Renames: who may move what lies in a replicated directory, the record with both places, refreshed
// directories.
#include "tests/module/kit/mount.h"
#include "tests/module/kit/programs.h"
#include "tests/ukern/threads.h"
#include "ukern/testing/uk_fault.h"

namespace {

// The directory /lower/rep is replicated, a rule covers everything, and the daemon listens.
struct protected_tree {
  test_mount mount;
  test_daemon daemon;
  protected_tree() {
    EXPECT_EQ(test_mkdir("/lower/rep"), 0);
    EXPECT_EQ(test_mkdir("/lower/free"), 0);
    EXPECT_EQ(test_put("/lower/rep/f", "x"), 1);
    EXPECT_EQ(test_put("/lower/free/g", "y"), 1);
    EXPECT_EQ(install_directory('d', "/lower/rep"), 0);
    EXPECT_EQ(install_rule('r', "/lower"), 0);
  }
  ~protected_tree() {
    do_flush(0);
    dir_flush(0);
  }
};

const char *make_program(const char *path) {
  char part[256];
  for (const char *slash = strchr(path + 1, '/'); slash; slash = strchr(slash + 1, '/')) {
    memcpy(part, path, slash - path);
    part[slash - path] = 0;
    const int rc = test_mkdir(part);
    EXPECT_TRUE(rc == 0 || rc == -EEXIST);
  }
  EXPECT_EQ(test_put(path, "#"), 1);
  return path;
}

// What a program that is started from `path` gets for a rename.
class program : running {
 public:
  explicit program(const char *path) : running(make_program(path)) {}
};

}  // namespace

MODULE_CASE(rename, other_program_is_refused_and_logged_once) {
  protected_tree r;
  program shell("/bin/mv");
  EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/free/f"), -EACCES);
  EXPECT_EQ(case_log_count("tarn_rename:block /lower/rep/f"), 1);
  EXPECT_TRUE(test_exists("/lower/rep/f"));
  EXPECT_FALSE(test_exists("/lower/free/f"));
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(rename, new_name_within_a_replicated_directory_is_refused_too) {
  protected_tree r;
  program shell("/bin/mv");
  EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/rep/f2"), -EACCES);
  EXPECT_TRUE(test_exists("/lower/rep/f"));
}

MODULE_CASE(rename, task_without_a_program_is_refused) {
  protected_tree r;
  EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/rep/f2"), -EACCES);
}

MODULE_CASE(rename, daemon_moves_and_the_record_has_both_paths_and_the_mode) {
  protected_tree r;
  program mirrord("/usr/local/oxbase/sbin/mirrord");
  EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/free/f2"), 0);
  EXPECT_FALSE(test_exists("/lower/rep/f"));
  EXPECT_TRUE(test_exists("/lower/free/f2"));
  EXPECT_FALSE(case_logged("tarn_rename:block /lower/rep/f"));
  const test_message &record = r.daemon.next();
  EXPECT_EQ(record.op(), OX_OP_RENAME);
  EXPECT_STREQ(record.path1(), "/lower/rep/f");
  EXPECT_STREQ(record.path2(), "/lower/free/f2");
  EXPECT_EQ(record.para()->mode, S_IFREG | 0644u);
  EXPECT_TRUE(r.daemon.idle());
}

MODULE_CASE(rename, daemon_s_path_with_a_suffix_is_refused) {
  protected_tree r;
  program almost("/usr/local/oxbase/sbin/mirrord2");
  EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/rep/f2"), -EACCES);
}

MODULE_CASE(rename, beginning_of_the_daemon_s_path_is_refused) {
  protected_tree r;
  program almost("/usr/local/oxbase/sbin/mirror");
  EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/rep/f2"), -EACCES);
}

MODULE_CASE(rename, program_path_that_does_not_fit_is_not_the_daemon_s) {
  protected_tree r;
  char path[200];
  strcpy(path, "/bin/");
  memset(path + 5, 'm', 150);
  path[155] = 0;
  {
    program deep(path);
    strcpy(mirrord_full_name, path);
    EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/rep/f2"), -EACCES);
  }
}

MODULE_CASE(rename, program_on_another_mount_has_its_whole_path) {
  protected_tree r;
  REQUIRE_EQ(test_mkdir("/usr"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/usr", "memfs", 0, nullptr), 0);
  {
    program mirrord("/usr/local/oxbase/sbin/mirrord");
    EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/rep/f2"), 0);
  }
  uk_drop_caches();
  EXPECT_EQ(uk_fs_umount("/usr", 0), 0);
}

MODULE_CASE(rename, move_into_a_replicated_directory_is_everyone_s) {
  protected_tree r;
  program shell("/bin/mv");
  EXPECT_EQ(test_rename("/mnt/free/g", "/mnt/rep/g"), 0);
  EXPECT_TRUE(test_exists("/lower/rep/g"));
  EXPECT_EQ(r.daemon.next().op(), OX_OP_RENAME);
}

MODULE_CASE(rename, directory_whose_name_only_begins_alike_is_covered) {
  protected_tree r;
  program shell("/bin/mv");
  REQUIRE_EQ(test_mkdir("/lower/repx"), 0);
  REQUIRE_EQ(test_put("/lower/repx/h", "z"), 1);
  EXPECT_EQ(test_rename("/mnt/repx/h", "/mnt/free/h"), -EACCES);
  EXPECT_TRUE(case_logged("tarn_rename:block /lower/repx/h"));
}

MODULE_CASE(rename, one_directory_is_refreshed_once) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  { const test_walk a("/mnt/a"); }
  const test_walk upper("/mnt");
  const test_walk lower("/lower");
  lower.inode()->i_uid = 77;
  EXPECT_EQ(test_rename("/mnt/a", "/mnt/b"), 0);
  EXPECT_TRUE(test_holds("/mnt/b", "x"));
  EXPECT_EQ(upper.inode()->i_uid, 77u);
  EXPECT_EQ(upper.inode()->i_mtime.tv_sec, lower.inode()->i_mtime.tv_sec);
}

MODULE_CASE(rename, both_directories_are_refreshed) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/from"), 0);
  REQUIRE_EQ(test_mkdir("/lower/to"), 0);
  REQUIRE_EQ(test_mkdir("/lower/from/d"), 0);
  { const test_walk d("/mnt/from/d"); }
  const test_walk from("/mnt/from");
  const test_walk to("/mnt/to");
  EXPECT_EQ(from.inode()->i_nlink, 3u);
  i_size_write(from.inode(), 12345);
  i_size_write(to.inode(), 12345);
  EXPECT_EQ(test_rename("/mnt/from/d", "/mnt/to/d"), 0);
  EXPECT_EQ(i_size_read(from.inode()), 12345);  // all but the size
  EXPECT_EQ(i_size_read(to.inode()), 12345);
  EXPECT_EQ(from.inode()->i_nlink, 2u);
  EXPECT_EQ(to.inode()->i_nlink, 3u);
}

MODULE_CASE(rename, refused_below_keeps_everything_and_is_not_recorded) {
  protected_tree r;
  REQUIRE_EQ(test_mkdir("/lower/free/d"), 0);
  REQUIRE_EQ(test_mkdir("/lower/free/full"), 0);
  REQUIRE_EQ(test_put("/lower/free/full/f", "x"), 1);
  const test_walk dir("/mnt/free");
  const test_walk lower("/lower/free");
  lower.inode()->i_uid = 77;
  EXPECT_EQ(test_rename("/mnt/free/d", "/mnt/free/full"), -ENOTEMPTY);
  EXPECT_TRUE(test_exists("/lower/free/d"));
  EXPECT_EQ(dir.inode()->i_uid, 0u);
  EXPECT_TRUE(r.daemon.idle());
}

namespace {

// A lower directory whose lock somebody else has until release().
class held_dir {
 public:
  explicit held_dir(const char *path) : walk_(path) {
    init_completion(&held_);
    init_completion(&let_go_);
    EXPECT_TRUE(thread_team_start(&team_, 1, hold, this));
    wait_for_completion(&held_);
  }
  // Whether a second task waits for the lock, now or soon.
  bool is_waited_for() const {
    for (int i = 0; i < 5000; i++) {
      if (__atomic_load_n(&mutex().word, __ATOMIC_RELAXED) == 2) return true;
      msleep(1);
    }
    return false;
  }
  void release() {
    complete(&let_go_);
    thread_team_wait(&team_, 1);
  }

 private:
  static void hold(void *arg) {
    auto *self = static_cast<held_dir *>(arg);
    mutex_guard guard(self->mutex());
    complete(&self->held_);
    wait_for_completion(&self->let_go_);
  }
  struct mutex &mutex() const {
    return walk_.inode()->i_mutex;
  }
  test_walk walk_;
  struct completion held_, let_go_;
  struct ThreadTeam team_;
};

struct moving {
  const char *from, *to;
  int result;
};

void move(void *arg) {
  auto *m = static_cast<struct moving *>(arg);
  m->result = test_rename(m->from, m->to);
}

}  // namespace

// A rename that waits for its lower directories may find them under other names when it has them:
// the record tells those.
MODULE_CASE(rename, record_has_the_places_at_the_time_of_the_move) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_mkdir("/lower/e"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  static struct moving moves[] = {{"/mnt/d/f", "/mnt/d/g", 1}, {"/mnt/d/g", "/mnt/e/h", 1}};
  const char *const names[] = {"/lower/d", "/lower/d1", "/lower/d2"};
  const char *const records[][2] = {{"/lower/d1/f", "/lower/d1/g"}, {"/lower/d2/g", "/lower/e/h"}};
  for (unsigned n = 0; n < ARRAY_SIZE(moves); n++) {
    { const test_walk from(moves[n].from), to(moves[n].to); }  // known, nothing has to be looked up
    held_dir held(names[n]);
    struct ThreadTeam mover;
    REQUIRE_TRUE(thread_team_start(&mover, 1, move, &moves[n]));
    EXPECT_TRUE(held.is_waited_for());
    EXPECT_EQ(test_rename(names[n], names[n + 1]), 0);
    held.release();
    thread_team_wait(&mover, 1);
    EXPECT_EQ(moves[n].result, 0);
    const test_message &record = daemon.next();
    EXPECT_EQ(record.op(), OX_OP_RENAME);
    EXPECT_STREQ(record.path1(), records[n][0]);
    EXPECT_STREQ(record.path2(), records[n][1]);
  }
  EXPECT_TRUE(test_holds("/lower/e/h", "x"));
  EXPECT_TRUE(daemon.idle());
  do_flush(0);
}

MODULE_CASE(rename, replaced_target_is_gone_and_the_open_source_stays_usable) {
  test_mount mount;
  REQUIRE_EQ(test_put("/mnt/a", "new"), 3);
  REQUIRE_EQ(test_put("/mnt/b", "old"), 3);
  test_file file("/mnt/a", O_RDWR);
  EXPECT_EQ(test_rename("/mnt/a", "/mnt/b"), 0);
  EXPECT_TRUE(test_holds("/mnt/b", "new"));
  EXPECT_TRUE(test_holds("/lower/b", "new"));
  EXPECT_FALSE(test_exists("/mnt/a"));
  EXPECT_EQ(file.write("N", 1, 0), 1);
  EXPECT_TRUE(test_holds("/lower/b", "New"));
}

// Each allocation of a rename fails once. The rename itself needs none: it happens, at worst
// unrecorded, or (when the path for the access rule cannot be had) untested.
MODULE_CASE(rename, works_without_memory_for_its_paths) {
  protected_tree r;
  program shell("/bin/mv");
  bool untested = false;
  for (unsigned long n = 1;; n++) {
    const test_walk rep("/mnt/rep");
    const test_walk free("/mnt/free");
    const test_walk source("/mnt/rep/f");
    { const test_walk missing("/mnt/free/f"); }
    struct dentry *target = test_cached("/mnt/free", "f");
    REQUIRE_TRUE(target);
    lock_rename(rep.dentry(), free.dentry());
    uk_fault_arm(n);
    const int rc = tarn_dir_iops.rename(rep.inode(), source.dentry(), free.inode(), target);
    const bool reached = uk_fault_count() >= n;
    uk_fault_arm(0);
    if (!rc) d_move(source.dentry(), target);
    unlock_rename(rep.dentry(), free.dentry());
    dput(target);
    if (rc) {
      EXPECT_EQ(rc, -EACCES);
    } else {
      untested = true;
      EXPECT_TRUE(test_exists("/lower/free/f"));
      EXPECT_EQ(test_rename("/mnt/free/f", "/mnt/rep/f"), 0);
    }
    if (!reached) break;
  }
  EXPECT_TRUE(untested);
}

// The layer shows what is mounted below as part of its own tree, but no lower file system can move
// an object to another one.
MODULE_CASE(rename, to_another_lower_file_system_is_refused) {
  protected_tree r;
  REQUIRE_EQ(test_mkdir("/lower/sub"), 0);
  REQUIRE_EQ(uk_fs_mount("none", "/lower/sub", "memfs", 0, nullptr), 0);
  REQUIRE_EQ(test_put("/lower/sub/h", "there"), 5);
  EXPECT_EQ(test_rename("/mnt/free/g", "/mnt/sub/g"), -EXDEV);
  EXPECT_EQ(test_rename("/mnt/sub/h", "/mnt/free/g"), -EXDEV);
  EXPECT_TRUE(test_holds("/lower/free/g", "y"));
  EXPECT_TRUE(test_holds("/lower/sub/h", "there"));
  EXPECT_FALSE(test_exists("/lower/sub/g"));
  EXPECT_EQ(test_link("/mnt/free/g", "/mnt/sub/g"), -EXDEV);
  // What it is mounted on is busy, not elsewhere: nobody shall copy it instead.
  EXPECT_EQ(test_rename("/mnt/sub", "/mnt/free/sub"), -EBUSY);
  EXPECT_EQ(test_rename("/mnt/free", "/mnt/sub"), -EBUSY);
  EXPECT_TRUE(r.daemon.idle());
  uk_drop_caches();  // which hold the mount
  EXPECT_EQ(uk_fs_umount("/lower/sub", 0), 0);
}

namespace {

// Another region of the calling task's memory map, in front of the others.
void map_in_front(const char *file, unsigned long flags) {
  struct mm_struct *mm = get_task_mm(current);
  REQUIRE_TRUE(mm);
  auto *vma =
      static_cast<struct vm_area_struct *>(kzalloc(sizeof(struct vm_area_struct), GFP_KERNEL));
  vma->vm_mm = mm;
  vma->vm_flags = flags;
  if (file) vma->vm_file = filp_open(file, O_RDONLY, 0);
  EXPECT_FALSE(IS_ERR(vma->vm_file));
  INIT_LIST_HEAD(&vma->shared.vm_set.list);
  vma->vm_next = mm->mmap;
  mm->mmap = vma;
  mmput(mm);
}

}  // namespace

// Libraries and data are mapped as well, and not every region has a file.
MODULE_CASE(rename, program_is_the_first_region_that_is_executable_and_has_a_file) {
  protected_tree r;
  make_program("/bin/other");
  {
    program mirrord("/usr/local/oxbase/sbin/mirrord");
    map_in_front(nullptr, VM_EXECUTABLE);
    map_in_front("/bin/other", VM_READ | VM_EXEC);
    EXPECT_EQ(test_rename("/mnt/rep/f", "/mnt/rep/f2"), 0);
    map_in_front("/bin/other", VM_EXECUTABLE);
    EXPECT_EQ(test_rename("/mnt/rep/f2", "/mnt/rep/f"), -EACCES);
  }
}
