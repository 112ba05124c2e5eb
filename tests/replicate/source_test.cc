// SPDX-License-Identifier: GPL-2.0
// What mirrord finds in the source, on kernels with and without path descriptors.
#include "mirrord/local_source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <span>

#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

class SourceTest : public testing::TestWithParam<bool> {
 protected:
  std::string at(const std::string &name) const { return dir_ / name; }
  std::optional<Source::Object> find(const std::string &path) {
    auto found = source_.find(path);
    EXPECT_TRUE(found.ok()) << found.error().text;
    return found ? std::move(*found) : std::nullopt;
  }

  test::TemporaryDirectory dir_;
  LocalSource source_{dir_ / "", GetParam()};
};

TEST_P(SourceTest, finds_the_target_of_a_symbolic_link) {
  fs::create_symlink("../not there", at("link"));
  const auto link = find("link");
  ASSERT_TRUE(link);
  EXPECT_TRUE(S_ISLNK(link->status.st_mode));
  EXPECT_EQ(link->target, "../not there");
}

TEST_P(SourceTest, entries_of_a_directory_are_found_as_what_they_are_now) {
  fs::create_directory(at("d"));
  for (const char *name : {"d/file", "d/later", "d/gone"}) std::ofstream(at(name)) << "text";
  fs::create_symlink("nowhere", at("d/link"));
  const auto directory = find("d");
  ASSERT_TRUE(directory && directory->fd);
  const auto entries = source_.entries(*directory);
  ASSERT_TRUE(entries.ok());
  fs::remove(at("d/gone"));
  fs::remove(at("d/later"));
  ASSERT_EQ(mkfifo(at("d/later").c_str(), 0600), 0);  // opening it would wait for a writer
  fs::rename(at("d"), at("moved"));
  ASSERT_EQ(entries->size(), 4u);
  for (const DirectoryEntry &entry : *entries) {
    const auto found = source_.child(*directory, entry);
    ASSERT_TRUE(found.ok()) << found.error().text;
    ASSERT_EQ(found->has_value(), entry.name != "gone") << entry.name;
    if (!*found) continue;
    EXPECT_EQ(S_ISFIFO((*found)->status.st_mode), entry.name == "later");
    EXPECT_EQ((*found)->target, entry.name == "link" ? "nowhere" : "");
    if (entry.name != "file") continue;
    char text[5] = "";
    ASSERT_TRUE((*found)->readable);
    EXPECT_EQ(pread((*found)->fd.get(), text, 4, 0), 4);
    EXPECT_STREQ(text, "text");
  }
}

TEST_P(SourceTest, a_found_file_is_read_although_its_name_has_gone) {
  fs::create_directory(at("d"));
  std::ofstream(at("d/file")) << "text";
  const auto file = find("d/file");
  ASSERT_TRUE(file && file->fd);
  fs::rename(at("d/file"), at("moved"));
  const auto open = source_.open(*file);
  ASSERT_TRUE(open.ok()) << open.error().text;
  char text[5] = "";
  const auto got = (*open)->read(0, std::as_writable_bytes(std::span(text, 4)));
  ASSERT_TRUE(got.ok());
  EXPECT_EQ(*got, 4u);
  EXPECT_STREQ(text, "text");
}

TEST_P(SourceTest, lists_a_directory) {
  fs::create_directories(at("d/e"));
  std::ofstream(at("d/file")) << "text";
  const auto directory = find("d");
  ASSERT_TRUE(directory);
  const auto entries = source_.entries(*directory);
  ASSERT_TRUE(entries.ok());
  EXPECT_EQ(entries->size(), 2U);
}

/* A reader of a FIFO would let a program write to it; a device may act when it is opened. */
TEST_P(SourceTest, special_files_are_found_and_not_opened) {
  ASSERT_EQ(mkfifo(at("fifo").c_str(), 0640), 0);
  ASSERT_EQ(mknod(at("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  const auto fifo = find("fifo"), socket = find("socket");
  ASSERT_TRUE(fifo && socket);
  EXPECT_TRUE(S_ISFIFO(fifo->status.st_mode));
  EXPECT_TRUE(S_ISSOCK(socket->status.st_mode));
  EXPECT_EQ(open(at("fifo").c_str(), O_WRONLY | O_NONBLOCK), -1);
  EXPECT_EQ(errno, ENXIO);
}

TEST_P(SourceTest, never_follows_a_link) {
  fs::create_directories(at("d/e"));
  fs::create_symlink("d", at("link"));
  EXPECT_FALSE(find("link/e"));
  EXPECT_FALSE(find("absent"));
  EXPECT_FALSE(find("absent/e"));
  EXPECT_TRUE(find(""));
}

INSTANTIATE_TEST_SUITE_P(Kernels, SourceTest, testing::Bool(), [](const auto &info) {
  return std::string(info.param ? "path_descriptors" : "before_them");
});

}  // namespace
}  // namespace tarn
