// SPDX-License-Identifier: GPL-2.0
// Which lock is held while a change is captured.
#include "tests/module/mounted.h"
#include "tests/ukern/threads.h"

namespace {

// A daemon that takes one record and lets the next sender wait until it is asked for more.
class slow_daemon {
 public:
  slow_daemon() {
    EXPECT_EQ(uk_nl_open(OX_NETLINK_UNIT, current->pid, 1, &sock_), 0);
    send(OX_NL_HELO);
  }
  ~slow_daemon() {
    send(OX_NL_QUIT);
    uk_nl_close(sock_);
  }
  slow_daemon(const slow_daemon &) = delete;
  slow_daemon &operator=(const slow_daemon &) = delete;
  bool take() { return uk_nl_recv(sock_, message_.get(), 8192, 0) >= 0; }

 private:
  void send(unsigned short type) {
    struct nlmsghdr header;
    memset(&header, 0, sizeof(header));
    header.nlmsg_len = sizeof(header);
    header.nlmsg_type = type;
    EXPECT_EQ(uk_nl_send(sock_, &header, sizeof(header)), static_cast<long>(sizeof(header)));
  }
  test_buffer message_{8192};
  struct uk_nlsock *sock_;
};

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
    {[] {
       const test_node node("/mnt/d/f");
       struct uk_stat want = {}, after = {};
       want.mode = 0600;
       return uk_setattr(node.get(), nullptr, UK_SET_MODE, &want, &after);
     },
     "/lower/d/f"},
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
  REQUIRE_EQ(test_add_rule('r', "/lower"), 0);
  slow_daemon daemon;
  test_buffer long_path(4001, 'n');
  memcpy(long_path.get(), "/lower/", 7);
  long_path[4000] = 0;
  uuid_t uuid;
  memset(uuid, 'r', sizeof(uuid));
  prule_ref rule(findnode_byuuid(uuid));
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
      if (!daemon.take()) msleep(1);
    }
    thread_team_wait(&team, 1);
    EXPECT_EQ(changing_result, 0);
    while (daemon.take()) {
    }
  }
  do_flush(0);
}
