// SPDX-License-Identifier: GPL-2.0
// Any tree that is copied, damaged at random and repaired is equal again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "base/unique_fd.h"
#include "tests/mirrord/verify_trees.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

/* Changes below a directory at random. Every step may fail, for example as there is no such name.
 */
class RandomChanges {
 public:
  RandomChanges(std::string root, unsigned seed) : root_(std::move(root)), random_(seed) {}

  void step() {
    const std::string path = name(), other = name();
    switch (below(14)) {
      case 0:
      case 1:
        mkdir(path.c_str(), 0700 + below(64));
        break;
      case 2:
      case 3:
        write(path, below(3) == 0 ? 1 << 20 : 0);
        break;
      case 4:
        write(path, below(3 << 20));
        break;
      case 5:
        static_cast<void>(truncate(path.c_str(), below(3 << 20)));
        break;
      case 6:
        static_cast<void>(symlink(std::to_string(below(100)).c_str(), path.c_str()));
        break;
      case 7:
        mknod(path.c_str(), below(2) ? S_IFIFO | 0644 : S_IFCHR | 0600, makedev(1, below(8)));
        break;
      case 8:
        static_cast<void>(link(other.c_str(), path.c_str()));
        break;
      case 9:
        static_cast<void>(rename(other.c_str(), path.c_str()));
        break;
      case 10: {
        std::error_code ignored;
        fs::remove_all(path, ignored);
        break;
      }
      case 11:
        fchmodat(AT_FDCWD, path.c_str(), below(010000), 0);
        break;
      case 12:
        static_cast<void>(lchown(path.c_str(), below(5), below(5)));
        break;
      default:
        attributes(path);
    }
  }

 private:
  unsigned below(unsigned n) { return random_() % n; }

  std::string name() {
    static const char *const kNames[] = {"a", "b", "c\n", "\xff"};
    std::string path = root_;
    for (unsigned depth = 1 + below(3); depth > 0; --depth)
      path += std::string("/") + kNames[below(4)];
    return path;
  }

  void write(const std::string &path, std::uint64_t offset) {
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0644));
    const std::string text(1 + below(10000), static_cast<char>('a' + below(3)));
    struct stat status;
    if (file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode))
      static_cast<void>(!pwrite(file.get(), text.data(), text.size(), static_cast<off_t>(offset)));
  }

  void attributes(const std::string &path) {
    const timespec times[2] = {{0, UTIME_OMIT}, {below(10), static_cast<long>(below(1000))}};
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    if (!exists(path)) return;
    const std::string value(below(3), 'v');
    const std::string key = "trusted." + std::to_string(below(2));
    set_attribute(path, key, value);
  }

  std::string root_;
  std::mt19937 random_;
};

TEST(RepairProperty, a_damaged_copy_is_equal_after_the_repair) {
  EXPECT_TRUE(rc::check("a damaged copy is equal after the repair", [] {
    const auto seed = *rc::gen::arbitrary<unsigned>();
    const auto made = *rc::gen::inRange(30, 200), damaged = *rc::gen::inRange(1, 80);
    TwoTrees trees;
    RandomChanges at_source(trees.beside("source"), seed);
    for (int i = 0; i < made; ++i) at_source.step();
    trees.copy();
    const auto equal = verify_trees(trees.source(), trees.target(), {});
    RC_ASSERT(equal.ok());
    RC_ASSERT(kinds(*equal) == std::vector<std::string>());
    RandomChanges at_target(trees.beside("target"), seed + 1);
    for (int i = 0; i < damaged; ++i) at_target.step();
    const auto found = verify_trees(trees.source(), trees.target(), {});
    RC_ASSERT(found.ok());
    RC_CLASSIFY(found->size() > 5, "more than five differences");
    const auto left = repair_trees(trees.source(), trees.target(), *found, {});
    RC_ASSERT(left.ok());
    RC_ASSERT(kinds(*left) == std::vector<std::string>());
    const auto after = verify_trees(trees.source(), trees.target(), {});
    RC_ASSERT(after.ok());
    RC_ASSERT(kinds(*after) == std::vector<std::string>());
    // By another program, which shares nothing with this one.
    const std::string command = "test -z \"$(rsync -naAHXUi --no-U --delete --checksum '" +
                                trees.beside("source/") + "' '" + trees.beside("target/") + "')\"";
    RC_ASSERT(std::system(command.c_str()) == 0);
  }));
}

}  // namespace
}  // namespace tarn
