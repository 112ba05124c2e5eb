// SPDX-License-Identifier: GPL-2.0
// Copies from the source are whole: extended attributes, access lists, holes, times; and cheap.
#include "mirrord/fetcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "mirrord/file_status.h"
#include "mirrord/local_source.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

constexpr std::size_t kMiB = std::size_t{1} << 20;

/* A directory for the replica on another file system. */
class TargetDirectory {
 public:
  explicit TargetDirectory(const std::string &beside, const std::string &type) {
    path_ = beside + "/copy";
    if (type == "tmpfs") {
      std::string made = "/dev/shm/fetcher_test_XXXXXX";
      path_ = mkdtemp(made.data()) ? made : "";
      removed_ = path_;
    } else {
      fs::create_directory(path_);
    }
    if (type == "ramfs" && mount("ramfs", path_.c_str(), "ramfs", 0, nullptr) != 0) path_.clear();
    mounted_ = type == "ramfs" && !path_.empty();
  }
  ~TargetDirectory() {
    if (mounted_) umount2(path_.c_str(), MNT_DETACH);
    if (!removed_.empty()) fs::remove_all(removed_);
  }
  TargetDirectory(const TargetDirectory &) = delete;
  TargetDirectory &operator=(const TargetDirectory &) = delete;
  const std::string &path() const { return path_; } /* "": there is no such file system here */

 private:
  std::string path_, removed_;
  bool mounted_ = false;
};

std::string contents(const std::string &file) {
  std::string text(fs::file_size(file), '\0');
  std::ifstream(file, std::ios::binary)
      .read(text.data(), static_cast<std::streamsize>(text.size()));
  return text;
}

struct stat status(const std::string &file) {
  struct stat s {};
  EXPECT_EQ(lstat(file.c_str(), &s), 0) << file << ": " << std::strerror(errno);
  return s;
}

std::string random_text(std::size_t size) {
  std::string text(size, 0);
  std::uint64_t state = 88172645463325252u;
  for (char &c : text) {
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    c = static_cast<char>(state);
  }
  return text;
}

template <class T>
void put(std::string &text, T value) {
  text.append(reinterpret_cast<const char *>(&value), sizeof(value));
}

/* An access list: the owner rwx, a user `user_permissions`, the group r--, a mask, others ---. */
std::string access_list(std::uint16_t user_permissions, std::uint16_t mask) {
  std::string text;
  put<std::uint32_t>(text, 2);
  const auto entry = [&](std::uint16_t tag, std::uint16_t permissions, std::uint32_t id) {
    put(text, tag), put(text, permissions), put(text, id);
  };
  entry(0x01, 7, ~0u);
  entry(0x02, user_permissions, 4711);
  entry(0x04, 4, ~0u);
  entry(0x10, mask, ~0u);
  entry(0x20, 0, ~0u);
  return text;
}

/* A capability to bind ports. */
std::string capability() {
  std::string text;
  for (const std::uint32_t word : {0x02000001u, 1u << 10, 0u, 0u, 0u}) put(text, word);
  return text;
}

class FetcherTest : public testing::TestWithParam<const char *> {
 protected:
  FetcherTest() : target_(dir_.path(), GetParam()) {
    umask(0);
    fs::create_directory(dir_ / "src");
  }
  void SetUp() override {
    if (target_.path().empty()) GTEST_SKIP() << "no " << GetParam() << " here";
    replica_.emplace(std::move(*Replica::open(target_.path())));
    fresh();
  }
  /* A fetcher that knows of no earlier copy. */
  void fresh() { fetcher_.emplace(source_, *replica_); }
  std::string src(const std::string &name) const { return dir_ / ("src/" + name); }
  std::string copy(const std::string &name) const { return target_.path() + "/" + name; }
  static bool all(const std::string &) { return true; }

  Result<void> try_fetch(const std::string &name) {
    const auto found = source_.find(name);
    EXPECT_TRUE(found && *found) << name;
    return fetcher_->fetch(name, **found, all);
  }
  void fetch(const std::string &name = "") {
    const auto fetched = try_fetch(name);
    ASSERT_TRUE(fetched.ok()) << fetched.error().text;
    replica_->close_files();
  }
  static void write(const std::string &file, const std::string &data) {
    std::ofstream(file, std::ios::binary) << data;
  }
  static void set_xattr(const std::string &file, const char *name, const std::string &value) {
    ASSERT_EQ(lsetxattr(file.c_str(), name, value.data(), value.size(), 0), 0)
        << file << " " << name << ": " << std::strerror(errno);
  }
  static bool has_lists(const std::string &directory) {
    const std::string list = access_list(4, 4);
    const std::string probe = directory + "/probe";
    write(probe, "");
    const bool has = setxattr(probe.c_str(), kAccessList, list.data(), list.size(), 0) == 0;
    fs::remove(probe);
    return has;
  }
  static Xattrs xattrs(const std::string &file) {
    auto found = read_xattrs({.path = file});
    EXPECT_TRUE(found.ok());
    return *found;
  }
  /* Types, modes, owners, times, links, data and extended attributes. */
  void expect_equal(const std::string &name) {
    const struct stat a = status(src(name)), b = status(copy(name));
    EXPECT_EQ(a.st_mode, b.st_mode) << name;
    EXPECT_EQ(a.st_uid, b.st_uid) << name;
    EXPECT_EQ(a.st_gid, b.st_gid) << name;
    EXPECT_TRUE(same_time(a.st_mtim, b.st_mtim)) << name;
    EXPECT_EQ(xattrs(src(name)), xattrs(copy(name))) << name;
    if (S_ISREG(a.st_mode)) {
      EXPECT_EQ(a.st_nlink, b.st_nlink) << name;
      EXPECT_TRUE(contents(src(name)) == contents(copy(name))) << name;
    }
    if (S_ISLNK(a.st_mode)) {
      EXPECT_EQ(fs::read_symlink(src(name)), fs::read_symlink(copy(name)));
    }
    if (!S_ISDIR(a.st_mode)) return;
    for (const auto &entry : fs::directory_iterator(src(name))) {
      const std::string below = entry.path().filename();
      expect_equal(name.empty() ? below : name + "/" + below);
    }
  }
  static void settle() {  // a privileged file is only copied when it has rested
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
  }

  TemporaryDirectory dir_;
  TargetDirectory target_;
  LocalSource source_{dir_ / "src"};
  std::optional<Replica> replica_;
  std::optional<Fetcher> fetcher_;
};

using WholeCopyTest = FetcherTest;

TEST_P(WholeCopyTest, a_tree_of_everything) {
  fs::create_directories(src("d/e"));
  for (const char *name : {"f", "d/f", "d/e/f"}) write(src(name), random_text(300'001));
  fs::create_hard_link(src("f"), src("d/g"));
  fs::create_symlink("nowhere", src("d/l"));
  ASSERT_EQ(mkfifo(src("d/p").c_str(), 0640), 0);
  ASSERT_EQ(chmod(src("d/f").c_str(), 0604), 0);
  ASSERT_EQ(chmod(src("d/e").c_str(), 01711), 0);
  const timespec times[] = {{.tv_sec = 1000, .tv_nsec = 1}, {.tv_sec = -7, .tv_nsec = 999'999'999}};
  for (const char *name : {"f", "d/l", "d/e", "d", ""})
    ASSERT_EQ(utimensat(AT_FDCWD, src(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  for (int round = 0; round < 2; ++round) {
    fetch();
    expect_equal("");
    EXPECT_EQ(status(copy("f")).st_ino, status(copy("d/g")).st_ino);
  }
}

TEST_P(WholeCopyTest, extended_attributes_of_every_type) {
  fs::create_directory(src("d"));
  write(src("d/f"), "data");
  fs::create_symlink("nowhere", src("d/l"));
  ASSERT_EQ(mkfifo(src("d/p").c_str(), 0640), 0);
  for (const char *name : {"d", "d/f"}) {
    set_xattr(src(name), "user.long", random_text(1500));
    set_xattr(src(name), "user.empty", "");
  }
  if (geteuid() == 0) {
    for (const char *name : {"d", "d/f", "d/l", "d/p"}) set_xattr(src(name), "trusted.t", "t");
  }
  fetch();
  expect_equal("");
  ASSERT_EQ(removexattr(src("d/f").c_str(), "user.empty"), 0);
  ASSERT_EQ(removexattr(src("d").c_str(), "user.long"), 0);
  set_xattr(src("d/f"), "user.long", "short");
  set_xattr(copy("d/f"), "user.other", "of nobody");
  fetch();
  expect_equal("");
  EXPECT_FALSE(xattrs(copy("d/f")).contains("user.other"));
}

TEST_P(WholeCopyTest, only_the_extended_attributes_differ) {
  write(src("f"), "data");
  fetch();
  set_xattr(src("f"), "user.late", "x");
  const auto found = source_.find("f");
  ASSERT_TRUE(fetcher_->fetch_attributes("f", **found).ok());
  EXPECT_EQ(xattrs(copy("f")), xattrs(src("f")));
}

TEST_P(WholeCopyTest, access_lists) {
  if (!has_lists(dir_ / "src") || !has_lists(target_.path())) GTEST_SKIP() << "no access lists";
  fs::create_directory(src("d"));
  write(src("d/plain"), "x");
  fs::create_directory(src("d/below"));
  set_xattr(src("d"), "system.posix_acl_default", access_list(6, 6));
  write(src("d/heir"), "y");
  write(src("d/narrow"), "z");
  set_xattr(src("d/narrow"), kAccessList, access_list(6, 6));
  ASSERT_EQ(chmod(src("d/narrow").c_str(), 0600), 0);  // the mask is empty now
  ASSERT_EQ(chmod(src("d/plain").c_str(), 02755), 0);
  for (int round = 0; round < 2; ++round) {
    fetch();
    expect_equal("");
  }
  ASSERT_EQ(removexattr(src("d/heir").c_str(), kAccessList), 0);
  ASSERT_EQ(chmod(src("d/heir").c_str(), 0640), 0);
  ASSERT_EQ(chmod(src("d/narrow").c_str(), 0664), 0);
  for (const char *name : {"d/heir", "d/narrow"}) {
    const auto found = source_.find(name);
    ASSERT_TRUE(fetcher_->fetch_attributes(name, **found).ok());
  }
  expect_equal("");
}

TEST_P(WholeCopyTest, a_closed_root_gets_no_access_list) {
  if (!has_lists(dir_ / "src") || !has_lists(target_.path())) GTEST_SKIP() << "no access lists";
  const auto open = replica_->must_close_to_others();
  ASSERT_TRUE(open.ok());
  if (!replica_->is_closed("")) GTEST_SKIP() << "set-user-id modes are not honoured here";
  ASSERT_TRUE(replica_->close_to_others().ok());
  ASSERT_EQ(chmod(src("").c_str(), 0755), 0);
  set_xattr(src(""), kAccessList, access_list(6, 6));
  fetch();
  EXPECT_TRUE(xattrs(copy("")).empty());
  EXPECT_EQ(status(copy("")).st_mode & 077, 0u);
}

TEST_P(WholeCopyTest, a_capability_comes_with_its_bytes) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives capabilities";
  write(src("f"), "trusted bytes");
  set_xattr(src("f"), kCapability, capability());
  settle();
  fetch();
  expect_equal("");
  // The same attributes but for the capability, over other bytes.
  write(copy("f"), "foreign bytes");
  ASSERT_FALSE(xattrs(copy("f")).contains(kCapability));
  const auto found = source_.find("f");
  ASSERT_TRUE(fetcher_->fetch_attributes("f", **found).ok());
  expect_equal("");
  // The source's has gone.
  ASSERT_EQ(removexattr(src("f").c_str(), kCapability), 0);
  ASSERT_TRUE(fetcher_->fetch_attributes("f", **source_.find("f")).ok());
  EXPECT_TRUE(xattrs(copy("f")).empty());
}

TEST_P(WholeCopyTest, a_capability_is_not_given_to_bytes_that_keep_changing) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives capabilities";
  write(src("f"), "bytes");
  set_xattr(src("f"), kCapability, capability());
  // A thread that has to wait for a processor lets the file rest: such a round tells nothing.
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kLate(30);
  bool late = true;
  for (int round = 0; late && round < 10; ++round) {
    late = false;
    fs::remove(copy("f"));  // with what such a round has given it
    std::atomic<bool> stop = false;
    std::thread changes([&, last = Clock::now()]() mutable {
      while (!stop) {
        EXPECT_EQ(chmod(src("f").c_str(), 0600), 0);  // sets the change time
        late = late || Clock::now() - last > kLate;
        last = Clock::now();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      late = late || Clock::now() - last > kLate;
    });
    fresh();
    const auto fetched = try_fetch("f");
    stop = true;
    changes.join();
    EXPECT_TRUE(fetched.ok());
  }
  if (late) GTEST_SKIP() << "no processor for a thread that changes a file all the time";
  EXPECT_FALSE(xattrs(copy("f")).contains(kCapability));
  EXPECT_EQ(contents(copy("f")), "bytes");
}

TEST_P(WholeCopyTest, holes_stay_holes) {
  write(src("f"), "begin");
  ASSERT_EQ(truncate(src("f").c_str(), 12 * kMiB), 0);
  std::ofstream(src("f"), std::ios::app | std::ios::binary)
      << random_text(kMiB) << std::string(kMiB, '\0');
  ASSERT_EQ(truncate(src("f").c_str(), 20 * kMiB + 1), 0);
  fetch();
  expect_equal("f");
  EXPECT_LT(status(copy("f")).st_blocks * 512, off_t{4 * kMiB});
  EXPECT_LT(fetcher_->data().bytes_read(), 4 * kMiB);
  EXPECT_GE(fetcher_->data().bytes_written(), 2 * kMiB) << "written zeros are no hole";
}

TEST_P(WholeCopyTest, data_becomes_a_hole) {
  write(src("f"), "");
  ASSERT_EQ(truncate(src("f").c_str(), 8 * kMiB), 0);
  std::ofstream(src("f"), std::ios::in | std::ios::out | std::ios::binary) << "begin";
  write(copy("f"), random_text(9 * kMiB));
  fetch();
  expect_equal("f");
  EXPECT_LT(status(copy("f")).st_blocks * 512, off_t{kMiB});
  EXPECT_LT(fetcher_->data().bytes_written(), kMiB);
}

TEST_P(WholeCopyTest, only_what_differs_is_written) {
  std::string data = random_text(4 * kMiB + 100);
  write(src("f"), data);
  fetch();
  auto written = [&, last = std::uint64_t{0}]() mutable {
    const std::uint64_t now = fetcher_->data().bytes_written();
    return now - std::exchange(last, now);
  };
  EXPECT_EQ(written(), data.size());
  for (const auto &[at, expected] :
       {std::pair<std::size_t, std::size_t>{0, 4096}, {kMiB + 4095, 4096}, {4 * kMiB + 99, 100}}) {
    data[at] ^= 1;
    write(src("f"), data);
    fetch();
    EXPECT_EQ(written(), expected) << at;
    EXPECT_TRUE(contents(copy("f")) == data);
  }
  write(src("f"), data);
  fetch();
  EXPECT_EQ(written(), 0u) << "only the time has changed";
  data += "more";
  write(src("f"), data);
  fetch();
  EXPECT_LE(written(), 4096u);
  EXPECT_TRUE(contents(copy("f")) == data);
  data.resize(kMiB + 1);
  write(src("f"), data);
  fetch();
  EXPECT_EQ(written(), 0u) << "it was cut";
  expect_equal("f");
}

TEST_P(WholeCopyTest, a_range_beyond_the_replicas_end) {
  write(src("f"), random_text(kMiB));
  write(copy("f"), "");
  const auto found = source_.find("f");
  ASSERT_TRUE(fetcher_->fetch_data("f", **found, kMiB / 2, kMiB / 2 + 10).ok());
  std::string expected(kMiB / 2, '\0');
  expected += contents(src("f")).substr(kMiB / 2, 10);
  EXPECT_TRUE(contents(copy("f")) == expected);
}

TEST_P(WholeCopyTest, equal_size_and_time_are_trusted_when_asked_for) {
  write(src("f"), "new bytes");
  write(copy("f"), "old bytes");
  const timespec times[] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 7, .tv_nsec = 8}};
  ASSERT_EQ(chmod(src("f").c_str(), 0604), 0);
  for (const std::string &file : {src("f"), copy("f")})
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  fetcher_->set_trust(Fetcher::Trust::kSizeAndTime);
  fetch();
  EXPECT_EQ(contents(copy("f")), "old bytes");
  EXPECT_EQ(fetcher_->data().bytes_read(), 0u);
  EXPECT_EQ(status(copy("f")).st_mode & 07777, mode_t{0604}) << "its attributes are compared";
  fresh();
  fetch();
  expect_equal("f");
  write(copy("f"), "old bytes");
  const timespec near[] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 7, .tv_nsec = 9}};
  ASSERT_EQ(utimensat(AT_FDCWD, copy("f").c_str(), near, 0), 0);
  fresh();
  fetcher_->set_trust(Fetcher::Trust::kSizeAndTime);
  fetch();
  expect_equal("f");
}

TEST_P(WholeCopyTest, a_file_that_was_changed_since_its_copy_is_not_trusted) {
  write(copy("f"), "old bytes");
  const timespec times[] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 7, .tv_nsec = 8}};
  ASSERT_EQ(utimensat(AT_FDCWD, copy("f").c_str(), times, 0), 0);
  do {  // until the clock of change times has gone on
    write(src("f"), "new bytes");
    ASSERT_EQ(utimensat(AT_FDCWD, src("f").c_str(), times, 0), 0);
  } while (same_time(status(src("f")).st_ctim, status(copy("f")).st_ctim));
  fetcher_->set_trust(Fetcher::Trust::kSizeAndTime);
  fetch();
  expect_equal("f");
}

TEST_P(WholeCopyTest, trusted_files_with_several_names) {
  const timespec times[] = {{.tv_sec = 5, .tv_nsec = 0}, {.tv_sec = 7, .tv_nsec = 8}};
  const auto make = [&](const std::string &root, const char *other_of_a, const char *other_of_c,
                        const char *c) {
    write(root + "a", "1234"), write(root + c, "5678");
    fs::create_hard_link(root + "a", root + other_of_a);
    fs::create_hard_link(root + c, root + other_of_c);
    for (const char *name : {"a", "b", "c", "d"})
      ASSERT_EQ(utimensat(AT_FDCWD, (root + name).c_str(), times, 0), 0);
  };
  make(src(""), "b", "d", "c");
  make(copy(""), "c", "d", "b");  // other names are one file
  fetcher_->set_trust(Fetcher::Trust::kSizeAndTime);
  for (int round = 0; round < 2; ++round) {
    fetch();
    EXPECT_EQ(status(copy("a")).st_ino, status(copy("b")).st_ino);
    EXPECT_EQ(status(copy("c")).st_ino, status(copy("d")).st_ino);
    EXPECT_NE(status(copy("a")).st_ino, status(copy("c")).st_ino);
    EXPECT_EQ(contents(copy("d")), "5678");
  }
  const auto inode = status(copy("a")).st_ino;
  fresh();
  fetcher_->set_trust(Fetcher::Trust::kSizeAndTime);
  fetch();
  EXPECT_EQ(status(copy("a")).st_ino, inode) << "equal names are kept";
  EXPECT_EQ(fetcher_->data().bytes_read(), 0u);
}

TEST_P(WholeCopyTest, the_rate_is_kept) {
  write(src("f"), random_text(kMiB));
  fetcher_->set_rate(4 * kMiB);
  const auto begin = std::chrono::steady_clock::now();
  fetch();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200));
  expect_equal("f");
}

TEST_P(WholeCopyTest, a_slow_copy_is_interrupted) {
  for (const char *name : {"f", "g"}) write(src(name), random_text(kMiB));
  std::atomic<bool> stop = false;
  fetcher_->set_rate(1);  // a copy would take days
  fetcher_->set_stop(&stop);
  std::thread stops([&] {
    EXPECT_TRUE(eventually([&] { return fs::exists(copy("f")); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    stop = true;
  });
  const auto fetched = try_fetch("");
  stops.join();
  ASSERT_FALSE(fetched.ok());
  EXPECT_EQ(fetched.error().code, -ECANCELED);
  EXPECT_FALSE(fs::exists(copy("g"))) << "nothing more is begun";
  EXPECT_FALSE(same_time(status(copy("f")).st_mtim, status(src("f")).st_mtim));
  stop = false;
  fetcher_->set_rate(0);
  fetch();
  expect_equal("");
}

TEST_P(WholeCopyTest, a_copy_of_empty_files_is_interrupted) {
  for (const char *name : {"f", "g"}) write(src(name), "");
  const std::atomic<bool> stop = true;
  fetcher_->set_stop(&stop);
  const auto fetched = try_fetch("");
  ASSERT_FALSE(fetched.ok());
  EXPECT_EQ(fetched.error().code, -ECANCELED);
  EXPECT_FALSE(fs::exists(copy("g")));
}

INSTANTIATE_TEST_SUITE_P(Targets, WholeCopyTest, testing::Values("beside", "tmpfs"),
                         [](const auto &target) { return std::string(target.param); });

/* A file system without extended attributes and without holes. */
using PlainTargetTest = FetcherTest;

TEST_P(PlainTargetTest, missing_extended_attributes_are_reported_once) {
  for (const char *name : {"f", "g"}) {
    write(src(name), "data");
    set_xattr(src(name), "user.x", "y");
    ASSERT_EQ(chmod(src(name).c_str(), 0604), 0);
  }
  const auto first = try_fetch("f");
  ASSERT_FALSE(first.ok());
  EXPECT_EQ(first.error().code, -EOPNOTSUPP) << first.error().text;
  EXPECT_NE(first.error().text.find("user.*"), std::string::npos) << first.error().text;
  for (const char *name : {"f", "g"}) {
    fetch(name);
    EXPECT_EQ(contents(copy(name)), "data");
    EXPECT_EQ(status(copy(name)).st_mode & 07777, mode_t{0604});
    EXPECT_TRUE(same_time(status(copy(name)).st_mtim, status(src(name)).st_mtim));
  }
}

TEST_P(PlainTargetTest, zeros_are_written_for_a_hole) {
  write(src("f"), "");
  ASSERT_EQ(truncate(src("f").c_str(), 2 * kMiB + 5), 0);
  std::string data(2 * kMiB + 5, '\0');
  data.replace(kMiB + 1, 3, "old");
  write(copy("f"), data);
  fetch("f");
  EXPECT_TRUE(contents(copy("f")) == contents(src("f")));
  EXPECT_EQ(fetcher_->data().bytes_written(), 4096u);
}

INSTANTIATE_TEST_SUITE_P(Targets, PlainTargetTest, testing::Values("ramfs"),
                         [](const auto &target) { return std::string(target.param); });

}  // namespace
}  // namespace tarn
