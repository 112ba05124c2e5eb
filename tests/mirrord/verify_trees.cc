// SPDX-License-Identifier: GPL-2.0
#include "tests/mirrord/verify_trees.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/unique_fd.h"

namespace tarn::test {

namespace fs = std::filesystem;

TwoTrees::TwoTrees() {
  umask(0);
  std::string name = fs::temp_directory_path() / "tarn-verify-XXXXXX";
  if (!mkdtemp(name.data())) abort();
  root_ = name;
  fs::create_directory(root_ + "/source");
  fs::create_directory(root_ + "/target");
  copy();
}

TwoTrees::~TwoTrees() {
  // Paths may be longer than the standard library can remove.
  if (std::system(("rm -rf '" + root_ + "'").c_str()) != 0) ADD_FAILURE() << root_ << " is left";
}

void TwoTrees::copy() const {
  const std::string command = "find '" + root_ +
                              "/target' -mindepth 1 -delete && cp -a --sparse=always '" + root_ +
                              "/source/.' '" + root_ + "/target'";
  if (std::system(command.c_str()) != 0) ADD_FAILURE() << command;
}

void write_file(const std::string &path, std::string_view text) {
  std::ofstream(path, std::ios::binary) << text;
}

void write_at(const std::string &path, std::uint64_t offset, std::string_view text) {
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  EXPECT_EQ(pwrite(file.get(), text.data(), text.size(), static_cast<off_t>(offset)),
            static_cast<ssize_t>(text.size()));
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

struct stat status_of(const std::string &path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

bool exists(const std::string &path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

void set_time(const std::string &path, std::int64_t seconds, long nanoseconds) {
  const timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

void set_attribute(const std::string &path, const std::string &name, std::string_view value) {
  EXPECT_EQ(lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0), 0)
      << path << " " << name << " " << errno;
}

std::string attribute(const std::string &path, const std::string &name) {
  std::string value(65536, '\0');
  const ssize_t length = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
  value.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return value;
}

std::vector<std::string> kinds(const std::vector<Difference> &differences) {
  std::vector<std::string> texts;
  for (const Difference &difference : differences)
    texts.push_back(difference.path + " " + difference.kind);
  return texts;
}

}  // namespace tarn::test
