// SPDX-License-Identifier: GPL-2.0
// Numbers and names agree: a record that is numbered before a rename says the path of before, one
// that is numbered after it the path of after, while all is done at once.
#include "tests/module/kit/mount.h"
#include "tests/ukern/threads.h"

namespace {

constexpr int rounds = 400;

struct nodes {
  struct uk_node *top, *dir, *file;
};

void rename_the_directory(void *arg) {
  auto *n = static_cast<struct nodes *>(arg);
  for (int i = 0; i < rounds; i++)
    EXPECT_EQ(uk_rename(n->top, i % 2 ? "e" : "d", n->top, i % 2 ? "d" : "e"), 0);
}

void change_the_file(void *arg) {
  auto *n = static_cast<struct nodes *>(arg);
  struct uk_stat want = {}, after;
  for (int i = 0; i < rounds; i++) {
    want.mode = i % 2 ? 0600 : 0640;
    EXPECT_EQ(uk_setattr(n->file, nullptr, UK_SET_MODE, &want, &after), 0);
  }
}

void make_and_remove(void *arg) {
  auto *n = static_cast<struct nodes *>(arg);
  struct uk_node *made;
  struct uk_stat stat;
  for (int i = 0; i < rounds; i++) {
    EXPECT_EQ(uk_mkdir(n->dir, "sub", 0755, &made, &stat), 0);
    uk_node_put(made, 1);
    EXPECT_EQ(uk_rmdir(n->dir, "sub"), 0);
    EXPECT_EQ(uk_mknod(n->dir, "x", S_IFREG | 0644, 0, &made, &stat), 0);
    uk_node_put(made, 1);
    EXPECT_EQ(uk_rename(n->dir, "x", n->dir, "y"), 0);
    EXPECT_EQ(uk_unlink(n->dir, "y"), 0);
  }
}

void write_the_file(void *arg) {
  auto *n = static_cast<struct nodes *>(arg);
  struct uk_file *file;
  REQUIRE_EQ(uk_open(n->file, O_RDWR, &file), 0);
  for (int i = 0; i < rounds; i++) EXPECT_EQ(uk_write(file, "data", 4, 0, O_WRONLY), 4);
  uk_release(file);
}

// The path of a record that must be below the directory.
const char *path_of(const test_message &record) {
  switch (record.op()) {
    case OX_OP_SETATTR:
      return record.attr()->name;
    case OX_OP_WRITE:
      return record.wr()->data;
    default:
      return record.path1();
  }
}

// Records of one rule come here in the order of sending; this puts them in that of the numbers.
class in_order {
 public:
  explicit in_order(test_daemon &daemon) {
    while (true) {
      const test_message &record = daemon.next();
      if (record.type() < 0) break;
      const unsigned number = record.msg()->wseq;
      REQUIRE_TRUE(number < kMost);
      struct seen &at = seen_[number];
      EXPECT_EQ(at.number, 0u);
      at.number = number;
      at.is_rename = record.op() == OX_OP_RENAME && !strchr(record.path1() + 7, '/');
      EXPECT_EQ(record.msg()->cp, OX_CP_NAMED);
      at.parent = path_of(record)[7];
      at.parent2 = record.op() == OX_OP_RENAME ? record.path2()[7] : at.parent;
      if (number > last_) last_ = number;
    }
  }
  // How many say another directory than the renames before them have left.
  int wrong(char parent) const {
    int wrong = 0;
    for (unsigned i = first_; i <= last_; i++) {
      const struct seen &at = seen_[i];
      EXPECT_EQ(at.number, i);
      if (at.parent != parent || (!at.is_rename && at.parent2 != parent)) wrong++;
      if (at.is_rename) parent = at.parent2;
    }
    return wrong;
  }
  void start_at(unsigned number) { first_ = number; }
  unsigned last() const { return last_; }

 private:
  static const unsigned kMost = 20000;
  struct seen {
    unsigned number;
    char parent, parent2;
    bool is_rename;
  };
  static struct seen seen_[kMost];
  unsigned first_ = 1, last_ = 0;
};

struct in_order::seen in_order::seen_[in_order::kMost];

}  // namespace

MODULE_CASE(name_order, paths_follow_the_numbers_of_renames) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(test_mkdir("/lower/d"), 0);
  REQUIRE_EQ(test_put("/lower/d/f", "x"), 1);
  {
    const test_node top("/mnt"), dir("/mnt/d"), file("/mnt/d/f");
    REQUIRE_TRUE(top.get() && dir.get() && file.get());
    struct nodes n = {top.get(), dir.get(), file.get()};
    REQUIRE_EQ(install_rule('r', "/lower"), 0);
    void (*const actors[])(void *) = {rename_the_directory, change_the_file, make_and_remove,
                                      write_the_file};
    struct ThreadTeam teams[4];
    for (int i = 0; i < 4; i++) REQUIRE_TRUE(thread_team_start(&teams[i], 1, actors[i], &n));
    for (struct ThreadTeam &team : teams) thread_team_wait(&team, 1);
    const in_order records(daemon);
    EXPECT_GE(records.last(), 3u * rounds);
    EXPECT_EQ(records.wrong('d'), 0);
    do_flush(0);
  }
}

// A record whose paths were taken before a rename takes them again, also if there was no rule yet
// when that was made.
MODULE_CASE(name_order, a_rename_without_rules_is_counted) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/a", "x"), 1);
  REQUIRE_EQ(test_put("/lower/b", "x"), 1);
  struct tarn_trans *none = nullptr;
  tarn_names names;
  EXPECT_EQ(names.number(&none, 1, TARN_KEEPS_NAMES, nullptr), TARN_NUMBERED);
  EXPECT_EQ(test_rename("/mnt/a", "/mnt/c"), 0);
  EXPECT_EQ(names.number(&none, 1, TARN_KEEPS_NAMES, nullptr), TARN_NAMES_MOVED);
  names.note();
  EXPECT_EQ(names.number(&none, 1, TARN_KEEPS_NAMES, nullptr), TARN_NUMBERED);
  EXPECT_EQ(test_unlink("/mnt/b"), 0);
  EXPECT_EQ(names.number(&none, 1, TARN_KEEPS_NAMES, nullptr), TARN_NAMES_MOVED);
}
