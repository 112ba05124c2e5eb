// SPDX-License-Identifier: GPL-2.0
#include "tests/module/kit/daemon.h"
#include "tests/module/kit/rules.h"
#include "tests/module/kit/vfs.h"
#include "ukern/testing/uk_fault.h"

namespace {

char data[30000];

void fill_data() {
  for (unsigned i = 0; i < sizeof(data); ++i) data[i] = static_cast<char>(i * 31 + (i >> 8));
}

/* A file whose path has 20 characters, under one rule, with a daemon that listens. */
class capture {
 public:
  explicit capture(const char *path = "/d/abcdefghijklmnopq")
      : made_(test_mkdir("/d")), file_(path), installed_(install_rule(1, "/")) {
    fill_data();
  }
  bool ready() const { return !made_ && !file_.error() && !installed_ && !daemon.error(); }
  int write(size_t count, loff_t offset) {
    kernel_ds_guard kernel_addresses;
    return tarn_write_sync(file_.get(), data, count, offset);
  }
  struct dentry *dentry() {
    return file_.get();
  }

  test_daemon daemon;

 private:
  int made_;
  bound_dentry file_;
  int installed_;
};

const unsigned kP = 24; /* 20 characters and their NUL, rounded up */

/* One page message: its header fields and its data. */
void expect_page(const test_message &m, unsigned nr, unsigned pages, unsigned bytes, loff_t at,
                 loff_t start) {
  const unsigned dlen1 = nr == 0 ? kP : 0;
  REQUIRE_EQ(m.type(), OX_OP_WRITE);
  EXPECT_EQ(m.received, OX_NLMSG_HDRLEN + OX_PAGE_PAYLOAD);
  EXPECT_EQ(m.head()->nlmsg_len, OX_NLMSG_HDRLEN + OX_MSG_WR_LEN + dlen1 + bytes);
  EXPECT_EQ(m.head()->nlmsg_flags, 2);
  EXPECT_EQ(m.head()->nlmsg_seq, 1u);
  EXPECT_EQ(m.head()->nlmsg_pid, (unsigned)current->pid);
  const struct ox_msg_wr *page = m.wr();
  EXPECT_EQ(page->uuid[0], 1);
  EXPECT_EQ(page->uuid[15], 1);
  EXPECT_EQ(page->wseq, 1u);
  EXPECT_EQ(page->op, OX_OP_WRITE);
  EXPECT_EQ(page->os, 1);
  EXPECT_EQ(page->cp, 0);
  EXPECT_NE(page->seq, 0u);
  EXPECT_EQ(page->type, OX_WRITE_PAGED);
  EXPECT_EQ(page->dlen1, dlen1);
  EXPECT_EQ(page->dlen2, bytes);
  EXPECT_EQ(page->off, (ox_u64_t)at);
  EXPECT_EQ(page->pagenr, nr);
  EXPECT_EQ(page->pages, pages);
  if (nr == 0) EXPECT_STREQ(page->data, "/d/abcdefghijklmnopq");
  EXPECT_EQ(memcmp(page->data + dlen1, data + (at - start), bytes), 0);
  int dirty = 0; /* behind the data nothing of the kernel's memory is shown */
  for (unsigned i = dlen1 + bytes; i < OX_PAGE_DATA; ++i) dirty += page->data[i] != 0;
  EXPECT_EQ(dirty, 0);
}

}  // namespace

MODULE_CASE(write_capture, the_largest_write_in_one_record) {
  capture c;
  REQUIRE_TRUE(c.ready());
  const ox_time_t before = ox_current_time_us();
  EXPECT_EQ(c.write(4012, 1000), 0);
  const test_message &m = c.daemon.next();
  REQUIRE_EQ(m.type(), OX_OP_COLLECT);
  EXPECT_EQ(m.received, 4112);
  EXPECT_EQ(m.head()->nlmsg_len, 4112u);
  EXPECT_EQ(m.head()->nlmsg_flags, 0);
  const struct ox_msg_wr *wr = m.wr();
  EXPECT_EQ(wr->type, OX_WRITE_WHOLE);
  EXPECT_EQ(wr->dlen1, kP);
  EXPECT_EQ(wr->dlen2, 4012u);
  EXPECT_EQ(wr->off, 1000ull);
  EXPECT_EQ(wr->pagenr, 0u);
  EXPECT_EQ(wr->pages, 1u);
  EXPECT_EQ(wr->wseq, 1u);
  EXPECT_EQ(wr->op, OX_OP_WRITE);
  EXPECT_EQ(wr->os, 1);
  EXPECT_EQ(wr->cp, 0);
  EXPECT_NE(wr->seq, 0u);
  EXPECT_LE(before, (ox_time_t)wr->ts);
  EXPECT_LE((ox_time_t)wr->ts, ox_current_time_us());
  EXPECT_STREQ(wr->data, "/d/abcdefghijklmnopq");
  EXPECT_EQ(wr->data[21] | wr->data[22] | wr->data[23], 0);
  EXPECT_EQ(memcmp(wr->data + kP, data, 4012), 0);
  EXPECT_TRUE(c.daemon.idle());
}

MODULE_CASE(write_capture, one_byte_more_makes_two_pages) {
  capture c;
  REQUIRE_TRUE(c.ready());
  EXPECT_EQ(c.write(4013, 1000), 0);
  expect_page(c.daemon.next(), 0, 2, 4012, 1000, 1000);
  expect_page(c.daemon.next(), 1, 2, 1, 5012, 1000);
  EXPECT_TRUE(c.daemon.idle());
}

MODULE_CASE(write_capture, a_write_that_fills_its_pages_has_no_empty_one) {
  capture c;
  REQUIRE_TRUE(c.ready());
  EXPECT_EQ(c.write(8048, 0), 0);
  expect_page(c.daemon.next(), 0, 2, 4012, 0, 0);
  expect_page(c.daemon.next(), 1, 2, 4036, 4012, 0);
  EXPECT_TRUE(c.daemon.idle());
}

MODULE_CASE(write_capture, ten_thousand_bytes_are_three_pages) {
  capture c;
  REQUIRE_TRUE(c.ready());
  const ox_time_t before = ox_current_time_us();
  EXPECT_EQ(c.write(10000, 1ll << 40), 0);
  expect_page(c.daemon.next(), 0, 3, 4012, 1ll << 40, 1ll << 40);
  const test_message &middle = c.daemon.next();
  expect_page(middle, 1, 3, 4036, (1ll << 40) + 4012, 1ll << 40);
  const ox_time_t ts = middle.wr()->ts;
  EXPECT_LE(before, ts);
  EXPECT_LE(ts, ox_current_time_us());
  const test_message &last = c.daemon.next();
  expect_page(last, 2, 3, 1952, (1ll << 40) + 8048, 1ll << 40);
  EXPECT_EQ((ox_time_t)last.wr()->ts, ts); /* one for the whole write */
  EXPECT_TRUE(c.daemon.idle());
}

MODULE_CASE(write_capture, a_whole_memory_page_is_two_pages) {
  capture c("/f");
  REQUIRE_TRUE(c.ready());
  EXPECT_EQ(c.write(4096, 8192), 0);
  const struct ox_msg_wr *first = c.daemon.next().wr();
  EXPECT_EQ(first->type, OX_WRITE_PAGED);
  EXPECT_EQ(first->pages, 2u);
  EXPECT_EQ(first->dlen1, 8);
  EXPECT_EQ(first->dlen2, 4028u);
  const struct ox_msg_wr *second = c.daemon.next().wr();
  EXPECT_EQ(second->pagenr, 1u);
  EXPECT_EQ(second->dlen2, 68u);
  EXPECT_EQ(second->off, 8192ull + 4028);
  EXPECT_TRUE(c.daemon.idle());
}

MODULE_CASE(write_capture, a_write_of_nothing_is_a_record_without_data) {
  capture c;
  REQUIRE_TRUE(c.ready());
  EXPECT_EQ(c.write(0, 5), 0);
  const test_message &m = c.daemon.next();
  EXPECT_EQ(m.type(), OX_OP_COLLECT);
  EXPECT_EQ(m.head()->nlmsg_len, OX_NLMSG_HDRLEN + OX_MSG_WR_LEN + kP);
  EXPECT_EQ(m.wr()->type, OX_WRITE_WHOLE);
  EXPECT_EQ(m.wr()->dlen2, 0u);
  EXPECT_EQ(m.wr()->off, 5ull);
}

MODULE_CASE(write_capture, the_path_field_is_a_multiple_of_eight) {
  static const struct {
    const char *path;
    unsigned dlen1;
  } cases[] = {{"/234567", 8}, {"/2345678", 16}, {"/2345678/12345", 16}, {"/2345678/123456", 16}};
  REQUIRE_EQ(test_mkdir("/2345678"), 0);
  REQUIRE_EQ(install_rule(1, "/"), 0);
  test_daemon daemon;
  fill_data();
  for (const auto &one : cases) {
    bound_dentry file(one.path);
    REQUIRE_EQ(file.error(), 0);
    kernel_ds_guard kernel_addresses;
    EXPECT_EQ(tarn_write_sync(file.get(), data, 3, 0), 0);
    const test_message &m = daemon.next();
    EXPECT_EQ(m.wr()->dlen1, one.dlen1);
    EXPECT_EQ(m.head()->nlmsg_len, OX_NLMSG_HDRLEN + OX_MSG_WR_LEN + one.dlen1 + 3);
    EXPECT_EQ(memcmp(m.wr()->data + one.dlen1, data, 3), 0);
    /* The netlink buffer is a multiple of 4, its pad is zero. */
    for (long i = m.head()->nlmsg_len; i < m.received; ++i) EXPECT_EQ(m.bytes[i], 0);
    EXPECT_EQ(m.received, (long)NLMSG_ALIGN(m.head()->nlmsg_len));
  }
}

MODULE_CASE(write_capture, a_fault_in_a_small_write_stops_the_rule) {
  capture c;
  REQUIRE_TRUE(c.ready());
  EXPECT_EQ(tarn_write_sync(c.dentry(), data, 100, 0), -ENOMEM); /* not the user's memory */
  EXPECT_TRUE(case_logged("tarn_wrtrans_alloc: Copy from user failed"));
  EXPECT_TRUE(case_logged("tarn_write_sync: tarn_wrtrans_alloc fail"));
  EXPECT_EQ(c.daemon.next().type(), OX_OP_STOP_RULE);
  EXPECT_TRUE(c.daemon.idle());
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(rule->status, PRULE_STOPPED);
  EXPECT_EQ(atomic_read(&rule->refcnt), 2);
  EXPECT_EQ(atomic_read(&rule->transnr), 0);
  /* The charge stays. */
  EXPECT_EQ(atomic_read(&rule->mem_used), (int)(TARN_TRANS_FIELDS + OX_MSG_WR_LEN + kP + 100));
  EXPECT_EQ(atomic_read(&g_option.mem_used), atomic_read(&rule->mem_used));
}

MODULE_CASE(write_capture, a_fault_in_a_later_page_gives_all_pages_back) {
  capture c;
  REQUIRE_TRUE(c.ready());
  alloc_balance balance;
  user_memory user(data, 5000);
  EXPECT_EQ(tarn_write_sync(c.dentry(), data, 9000, 0), -ENOMEM);
  EXPECT_TRUE(case_logged("tarn_wrtrans_alloc: trans_allocpages failed, rc=-14"));
  EXPECT_EQ(c.daemon.next().type(), OX_OP_STOP_RULE);
  EXPECT_TRUE(c.daemon.idle());
  EXPECT_EQ(balance(), 0);
}

/* The charge is the write's whole length, not what 16 bits hold of it. */
MODULE_CASE(write_capture, a_fault_in_a_large_write_keeps_its_whole_charge) {
  capture c;
  REQUIRE_TRUE(c.ready());
  const size_t counts[] = {65535, 65536, 100000, 50 << 20};
  for (size_t count : counts) {
    {
      prule_ref rule(lookup_rule(1));
      EXPECT_EQ(tarn_write_sync(c.dentry(), data, count, 0), -ENOMEM); /* not the user's memory */
      const int charge = static_cast<int>(TARN_TRANS_FIELDS + OX_MSG_WR_LEN + kP + count);
      EXPECT_EQ(atomic_read(&rule->mem_used), charge);
      EXPECT_EQ(atomic_read(&g_option.mem_used), charge);
      EXPECT_EQ(rule->bytes_send, OX_MSG_WR_LEN - OX_MSG_LEN + kP + count);
    }
    atomic_set(&g_option.mem_used, 0);
    remove_rule(1);
    REQUIRE_EQ(install_rule(1, "/"), 0);
  }
}

MODULE_CASE(write_capture, a_large_write_is_charged_as_a_whole) {
  static char bytes[3 << 20];
  const size_t count = sizeof(bytes);
  capture c;
  REQUIRE_TRUE(c.ready());
  prule_ref rule(lookup_rule(1));
  c.daemon.send(OX_NL_QUIT);
  {
    kernel_ds_guard kernel_addresses;
    EXPECT_EQ(tarn_write_sync(c.dentry(), bytes, count, 0), 0);
  }
  EXPECT_EQ(rule->bytes_send, OX_MSG_WR_LEN - OX_MSG_LEN + kP + count);
  EXPECT_EQ(atomic_read(&rule->mem_used), 0);
  EXPECT_EQ(atomic_read(&g_option.mem_used), 0);
}

MODULE_CASE(write_capture, user_memory_is_read) {
  capture c;
  REQUIRE_TRUE(c.ready());
  user_memory user(data, sizeof(data));
  EXPECT_EQ(tarn_write_sync(c.dentry(), data, 100, 0), 0);
  EXPECT_EQ(memcmp(c.daemon.next().wr()->data + kP, data, 100), 0);
}

MODULE_CASE(write_capture, a_write_under_no_rule_allocates_only_path_and_hits) {
  REQUIRE_EQ(install_rule(1, "/elsewhere"), 0);
  bound_dentry file("/f");
  REQUIRE_EQ(file.error(), 0);
  uk_fault_arm(0);
  EXPECT_EQ(tarn_write_sync(file.get(), data, 4096, 0), 0);
  EXPECT_EQ(uk_fault_count(), 2ul);
}

MODULE_CASE(write_capture, other_rules_are_served_when_one_cannot_be) {
  capture c;
  REQUIRE_TRUE(c.ready());
  REQUIRE_EQ(install_rule(2, "/d"), 0);
  uk_fault_arm(3); /* path, hits, the record of the last hit */
  EXPECT_EQ(c.write(10, 0), -ENOMEM);
  uk_fault_arm(0);
  EXPECT_EQ(c.daemon.next().type(), OX_OP_STOP_RULE);
  const test_message &m = c.daemon.next();
  EXPECT_EQ(m.type(), OX_OP_COLLECT);
  EXPECT_EQ(m.msg()->uuid[0], 1);
  EXPECT_TRUE(c.daemon.idle());
}

MODULE_CASE(write_capture, every_allocation_of_a_paged_write_may_fail) {
  capture c;
  REQUIRE_TRUE(c.ready());
  remove_rule(1);
  alloc_balance balance;
  for (unsigned long n = 1;; ++n) {
    REQUIRE_TRUE(n < 100);
    REQUIRE_EQ(install_rule(1, "/d"), 0);
    prule_ref rule(lookup_rule(1));
    const int before = balance();
    uk_fault_arm(n);
    const int result = c.write(9000, 0);
    const bool failed = uk_fault_count() >= n;
    uk_fault_arm(0);
    /* Without a path nothing is captured; without hits or a record the caller learns it. */
    if (n == 1) EXPECT_EQ(result, 0);
    if (n > 1 && failed && rule->status == PRULE_STOPPED) EXPECT_EQ(result, -ENOMEM);
    /* A block that could not be had is counted all the same. */
    EXPECT_LE(balance() - before, 1);
    c.daemon.drain();
    remove_rule(1);
    if (!failed) break;
  }
}

MODULE_CASE(write_capture, a_path_that_leaves_no_room_for_data_uses_up_a_number) {
  REQUIRE_EQ(install_rule(1, "/"), 0);
  /* Components of 200 characters up to 4036 in all. */
  static char path[OX_PATH_MAX];
  char name[201];
  memset(name, 'n', 200);
  name[200] = '\0';
  struct uk_node *dir;
  REQUIRE_EQ(uk_node_at("/", &dir), 0);
  unsigned long len = 0;
  while (len + 201 < 4036 - 100) {
    struct uk_node *made = nullptr;
    struct uk_stat stat;
    REQUIRE_EQ(uk_mkdir(dir, name, 0755, &made, &stat), 0);
    uk_node_put(dir, 1);
    dir = made;
    path[len++] = '/';
    memcpy(path + len, name, 201);
    len += 200;
  }
  uk_node_put(dir, 1);
  test_daemon daemon;
  fill_data();
  const unsigned long limit = 4031; /* the path field fills 4032 bytes: 4 bytes of data fit */
  path[len++] = '/';
  while (len < limit) path[len++] = 'f';
  path[len] = '\0';
  {
    bound_dentry file(path);
    REQUIRE_EQ(file.error(), 0);
    kernel_ds_guard kernel_addresses;
    EXPECT_EQ(tarn_write_sync(file.get(), data, 5, 0), 0);
    EXPECT_EQ(daemon.next().wr()->dlen2, 4u);
    EXPECT_EQ(daemon.next().wr()->dlen2, 1u);
  }
  path[len++] = 'f';
  path[len] = '\0';
  bound_dentry file(path);
  REQUIRE_EQ(file.error(), 0);
  kernel_ds_guard kernel_addresses;
  EXPECT_EQ(tarn_write_sync(file.get(), data, 0, 0), 0);
  EXPECT_TRUE(daemon.idle());
  char line[1024];
  snprintf(
      line, sizeof(line),
      "tarn_trans: rule 01010101-0101-0101-0101-010101010101: record 2 is left out, its path is "
      "too long: %.880s",
      path);
  EXPECT_TRUE(case_logged(line));
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(rule->status, PRULE_ACTIVE);
  EXPECT_EQ(tarn_para_sync(OX_OP_UNLINK, "/x", nullptr, 0), 0);
  EXPECT_EQ(daemon.next().para()->wseq, 3u);
}

MODULE_CASE(write_capture, without_a_daemon_pages_are_given_back) {
  capture c;
  REQUIRE_TRUE(c.ready());
  c.daemon.send(OX_NL_QUIT);
  alloc_balance balance;
  EXPECT_EQ(c.write(20000, 0), 0);
  EXPECT_EQ(balance(), 0);
  prule_ref rule(lookup_rule(1));
  EXPECT_EQ(atomic_read(&rule->transnr), 1);
  EXPECT_EQ(atomic_read(&rule->mem_used), 0);
}
