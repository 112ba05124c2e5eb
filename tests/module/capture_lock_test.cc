// SPDX-License-Identifier: GPL-2.0
// Which lock is held while a change is captured.
#include "tests/module/kit/mount.h"
#include "tests/ukern/threads.h"

namespace {

// A change, and the inode whose i_mutex is held while it is captured.
struct captured {
  int (*change)(void);
  const char *locked;
};

const struct captured changes[] = {
    {[] { return static_cast<int>(test_put("/mnt/d/f", "y")) - 1; }, "/mnt/d/f"},
    {[] {
       test_file file("/mnt/d/made", O_CREAT | O_WRONLY);
       return file.error();
     },
     "/lower/d"},
    {[] { return test_mkdir("/mnt/d/sub"); }, "/lower/d"},
    {[] { return test_symlink("to", "/mnt/d/link"); }, "/lower/d"},
    {[] { return test_link("/mnt/d/f", "/mnt/d/hard"); }, "/lower/d"},
    {[] { return test_rename("/mnt/d/made", "/mnt/e/made"); }, "/lower/d"},
    {[] { return test_rename("/mnt/e/made", "/mnt/d/made"); }, "/lower/d"},
    {[] { return test_unlink("/mnt/d/hard"); }, "/lower/d"},
    {[] { return test_rmdir("/mnt/d/sub"); }, "/lower/d"},
    {[] { return test_chmod("/mnt/d/f", 0600); }, "/lower/d/f"},
};

const struct captured *changing;
int changing_result;
bool change_is_done;

void make_the_change(void *) {
  changing_result = changing->change();
  __atomic_store_n(&change_is_done, true, __ATOMIC_RELEASE);
}

}  // namespace

// A record is numbered before it is sent, and there is no room for it then: the lock that makes the
// order of the records that of the changes is held until the daemon takes one.
MODULE_CASE(capture_lock, is_that_of_the_change) {
  test_mount mount;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_mkdir("/lower/e"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  test_daemon daemon(test_daemon::kHello, 1);  // takes one record, the next sender waits
  test_buffer long_path(4001, 'n');
  memcpy(long_path.get(), "/lower/", 7);
  long_path[4000] = 0;
  prule_ref rule(lookup_rule('r'));
  REQUIRE_TRUE(rule);
  for (const struct captured &captured : changes) {
    const test_walk object(captured.locked);
    REQUIRE_EQ(object.error(), 0);
    EXPECT_FALSE(mutex_is_locked(&object.inode()->i_mutex));
    EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, long_path.get(), nullptr, 0), 0);  // fills the queue
    const int before = atomic_read(&rule->transnr);
    changing = &captured;
    change_is_done = false;
    struct ThreadTeam team;
    REQUIRE_TRUE(thread_team_start(&team, 1, make_the_change, nullptr));
    while (atomic_read(&rule->transnr) == before &&
           !__atomic_load_n(&change_is_done, __ATOMIC_ACQUIRE))
      msleep(1);
    EXPECT_FALSE(__atomic_load_n(&change_is_done, __ATOMIC_ACQUIRE));
    if (!mutex_is_locked(&object.inode()->i_mutex))
      printk("change %d:\n", (int)(&captured - changes));
    EXPECT_TRUE(mutex_is_locked(&object.inode()->i_mutex));
    while (!__atomic_load_n(&change_is_done, __ATOMIC_ACQUIRE)) {
      if (daemon.idle()) msleep(1);
    }
    thread_team_wait(&team, 1);
    EXPECT_EQ(changing_result, 0);
    daemon.drain();
  }
  do_flush(0);
}
