// SPDX-License-Identifier: GPL-2.0
// What capture costs a write on a mount, in copies and in allocations: the same write, on the same
// open file, with more or fewer rules, and without capture.
#include "tests/module/kit/mount.h"
#include "ukern/testing/uk_fault.h"

namespace {

char data[100000];

struct cost {
  unsigned long copied; /* bytes from the writer's memory; counted in debug builds */
  unsigned long allocations;
};

/* A file on the mount whose pages are all there, so that writing it anew costs the same each time.
 */
class written_file {
 public:
  written_file() : file_("/mnt/f", O_CREAT | O_RDWR) {
    EXPECT_EQ(file_.write(data, sizeof(data), 0), (long)sizeof(data));
    write(100);
  }
  cost write(unsigned long size) {
    const unsigned long before = uk_user_copied();
    uk_fault_arm(0);
    EXPECT_EQ(file_.write(data, size, 0), static_cast<long>(size));
    return {uk_user_copied() - before, uk_fault_count()};
  }
  /* The same of a file that capture has no path for. */
  cost write_uncaptured(unsigned long size) {
    test_walk walk("/mnt/f");
    struct dentry *dentry = walk.dentry();
    struct dentry_operations *op = dentry->d_op;
    dentry->d_op = nullptr;
    const cost result = write(size);
    dentry->d_op = op;
    return result;
  }

 private:
  test_file file_;
};

const unsigned long kSizes[] = {1, 100, 4012, 4096, 9000, sizeof(data)};

}  // namespace

MODULE_CASE(capture_cost, a_write_without_rules_allocates_nothing) {
  test_mount mount;
  written_file file;
  for (unsigned long size : kSizes) {
    const cost plain = file.write_uncaptured(size);
    const cost same = file.write(size);
    EXPECT_EQ(same.allocations, plain.allocations);
    EXPECT_EQ(same.copied, plain.copied);
  }
}

MODULE_CASE(capture_cost, a_write_under_no_rule_allocates_the_path_and_the_hits) {
  test_mount mount;
  written_file file;
  for (unsigned long size : kSizes) {
    const cost plain = file.write_uncaptured(size);
    EXPECT_EQ(install_rule(1, "/elsewhere"), 0);
    const cost unrelated = file.write(size);
    EXPECT_EQ(unrelated.allocations, plain.allocations + 2);
    EXPECT_EQ(unrelated.copied, plain.copied);
    do_flush(0);
  }
}

#if UKERN_DEBUG
MODULE_CASE(capture_cost, each_rule_copies_the_data_once) {
  test_mount mount;
  written_file file;
  test_daemon daemon;
  for (unsigned long size : kSizes) {
    const cost plain = file.write_uncaptured(size);
    EXPECT_EQ(plain.copied % size, 0ul);
    for (char rules = 1; rules <= 3; rules++) {
      EXPECT_EQ(install_rule(rules, "/lower"), 0);
      EXPECT_EQ(file.write(size).copied, plain.copied + rules * size);
    }
    do_flush(0);
    daemon.drain();
  }
}
#endif

/* One record with its array, and a head and a block for each page: no page is made anew on its way
 * to the daemon. */
MODULE_CASE(capture_cost, pages_are_handed_over_as_they_were_filled) {
  test_mount mount;
  written_file file;
  test_daemon daemon;
  const cost plain = file.write_uncaptured(9000);
  EXPECT_EQ(install_rule(1, "/lower"), 0);
  EXPECT_EQ(file.write(9000).allocations, plain.allocations + 2 + 1 + 3 * 2);
  EXPECT_EQ(daemon.drain(), 3);
}
