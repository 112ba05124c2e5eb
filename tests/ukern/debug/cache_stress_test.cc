// SPDX-License-Identifier: GPL-2.0
// Many tasks at once in the dentry and inode caches: names that are made, found, moved and removed
// while unused dentries and inodes are thrown out and file systems come and go. The lock checker,
// the sanitizers and the leak reports at the end of the case are what looks at it.
#include "tests/ukern/name_calls.h"
#include "tests/harness/case.h"
#include "ukern/door/uk_fs.h"

static const int kThreads = 4;
static const int kRounds = 200;

struct worker {
  int number;
  int unexpected;  // an error that none of the calls may give
  struct completion done;
};

static void expect_one_of(struct worker *w, int err, int a, int b) {
  if (err && err != a && err != b && !w->unexpected) w->unexpected = err;
}

// A directory that only this task changes, and one that all change.
static int work_on_names(void *data) {
  struct worker *w = (struct worker *)data;
  char mine[32], moved[32], shared[32];
  struct kstat stat;

  for (int i = 0; i < kRounds; i++) {
    sprintf(mine, "/own%d/f%d", w->number, i % 16);
    sprintf(moved, "/shared/m%d.%d", w->number, i % 8);
    sprintf(shared, "/shared/s%d", i % 4);
    expect_one_of(w, name_mknod(mine, S_IFREG | 0644, 0), 0, 0);
    expect_one_of(w, name_stat(mine, &stat), 0, 0);
    expect_one_of(w, name_mkdir(shared, 0755), -EEXIST, 0);
    expect_one_of(w, name_stat(shared, &stat), -ENOENT, 0);
    expect_one_of(w, name_rename(mine, moved), 0, 0);
    expect_one_of(w, name_stat("/shared/none", &stat), -ENOENT, 0);
    expect_one_of(w, name_rmdir(shared), -ENOENT, 0);
    expect_one_of(w, name_unlink(moved), 0, 0);
    expect_one_of(w, name_stat(mine, &stat), -ENOENT, 0);
  }
  complete(&w->done);
  return 0;
}

CASE(cache_stress, names_change_while_the_caches_are_emptied) {
  struct worker workers[kThreads] = {};
  char dir[32];

  uk_set_cache_limit(8);
  REQUIRE_EQ(name_mkdir("/shared", 0755), 0);
  REQUIRE_EQ(name_mkdir("/mnt", 0755), 0);
  for (int i = 0; i < kThreads; i++) {
    workers[i].number = i;
    init_completion(&workers[i].done);
    sprintf(dir, "/own%d", i);
    REQUIRE_EQ(name_mkdir(dir, 0755), 0);
  }
  for (int i = 0; i < kThreads; i++)
    EXPECT_FALSE(IS_ERR(kthread_run(work_on_names, &workers[i], "worker%d", i)));
  for (int i = 0; i < 20; i++) {
    uk_drop_caches();
    EXPECT_EQ(uk_fs_mount("x", "/mnt", "memfs", 0, NULL), 0);
    EXPECT_EQ(name_mkdir("/mnt/dir", 0755), 0);
    EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
  }
  for (int i = 0; i < kThreads; i++) {
    wait_for_completion(&workers[i].done);
    EXPECT_EQ(workers[i].unexpected, 0);
  }
}

struct watch {
  int over;
  int wrong;  // how often the name was not found
  struct completion done;
};

static int look_for_a_name(void *data) {
  struct watch *w = (struct watch *)data;
  struct kstat stat;
  while (!__atomic_load_n(&w->over, __ATOMIC_RELAXED)) w->wrong += name_stat("/dir", &stat) != 0;
  complete(&w->done);
  return 0;
}

CASE(cache_stress, a_name_is_found_while_the_table_grows) {
  struct watch watch = {};
  struct kstat stat;
  char name[16];

  init_completion(&watch.done);
  REQUIRE_EQ(name_mkdir("/dir", 0755), 0);
  REQUIRE_TRUE(!IS_ERR(kthread_run(look_for_a_name, &watch, "watch")));
  for (int i = 0; i < 3000; i++) {
    sprintf(name, "/none%d", i);
    EXPECT_EQ(name_stat(name, &stat), -ENOENT);
  }
  __atomic_store_n(&watch.over, 1, __ATOMIC_RELAXED);
  wait_for_completion(&watch.done);
  EXPECT_EQ(watch.wrong, 0);
}
