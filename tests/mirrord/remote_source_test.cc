// SPDX-License-Identifier: GPL-2.0
// What a replica sees of a source on another host, and what it cannot see.
#include "mirrord/remote/remote_source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "mirrord/file_status.h"
#include "mirrord/remote/remote_tree.h"
#include "mirrord/verify/verify.h"
#include "tests/mirrord/remote_kit.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

class RemoteSourceTest : public testing::Test {
 protected:
  RemoteSourceTest() { fs::create_directory(source_); }

  std::string at(const std::string &name) const { return source_ + "/" + name; }
  void put(const std::string &name, const std::string &data) const {
    std::ofstream(at(name), std::ios::binary) << data;
  }
  std::optional<Source::Object> find(const std::string &path) {
    auto found = remote_.find(path);
    EXPECT_TRUE(found.ok()) << path << ": " << found.error().text;
    return found ? std::move(*found) : std::nullopt;
  }
  remote::Answer ask(const remote::Question &question) {
    const auto bytes = line_.ask(encode(remote::NumberedQuestion{1, question}));
    EXPECT_TRUE(bytes.ok());
    EXPECT_LE(bytes->size(), remote::kMessageMax);
    auto answer = remote::decode_answer(*bytes);
    EXPECT_TRUE(answer.ok());
    message_ = *bytes;
    return answer->answer;
  }
  int error_of(const remote::Question &question) {
    const auto answer = ask(question);
    const auto *failure = std::get_if<remote::Failure>(&answer);
    return failure ? failure->error : 0;
  }
  /* All data, and where holes begin and end. */
  std::string read_all(SourceFile &file, std::uint64_t size, std::string *holes = nullptr) {
    std::string data(size, '\0');
    for (std::uint64_t offset = 0; offset < size;) {
      const auto extent = file.data_from(offset, size);
      EXPECT_TRUE(extent.ok()) << extent.error().text;
      if (!extent) return {};
      if (holes && extent->begin > offset)
        *holes += std::to_string(offset) + "-" + std::to_string(extent->begin) + " ";
      offset = extent->begin;
      const std::uint64_t length = extent->end - extent->begin;
      if (length == 0) continue;
      const auto got =
          file.read(offset, std::as_writable_bytes(std::span(data).subspan(offset, length)));
      EXPECT_TRUE(got.ok() && *got == length);
      offset = extent->end;
    }
    return data;
  }

  TemporaryDirectory dir_;
  const std::string source_ = dir_ / "src";
  Line line_{serving(source_, {{source_}, {source_ + "/out"}})};
  RemoteSource remote_{line_};
  std::vector<std::byte> message_;
};

TEST_F(RemoteSourceTest, finds_what_is_there_with_all_that_belongs_to_it) {
  fs::create_directory(at("d"));
  put("d/f", "text");
  fs::permissions(at("d/f"), fs::perms{04711});
  ASSERT_EQ(setxattr(at("d/f").c_str(), "user.a", "b", 1, 0), 0);
  fs::create_symlink("../not there", at("d/link"));
  struct stat status;
  ASSERT_EQ(lstat(at("d/f").c_str(), &status), 0);
  const auto file = find("d/f"), link = find("d/link");
  ASSERT_TRUE(file && link);
  EXPECT_EQ(file->status.st_mode, status.st_mode);
  EXPECT_EQ(file->status.st_nlink, status.st_nlink);
  EXPECT_EQ(file->status.st_size, 4);
  EXPECT_TRUE(same_object(file->status, status));
  EXPECT_TRUE(same_time(file->status.st_mtim, status.st_mtim));
  EXPECT_TRUE(same_time(file->status.st_ctim, status.st_ctim));
  const auto xattrs = remote_.xattrs(*file);
  ASSERT_TRUE(xattrs.ok() && *xattrs);
  EXPECT_EQ((**xattrs).at("user.a"), "b");
  EXPECT_EQ(link->target, "../not there");
  EXPECT_FALSE(find("absent"));
  EXPECT_FALSE(find("d/f/below"));
}

TEST_F(RemoteSourceTest, never_leaves_the_source) {
  fs::create_directory(dir_ / "beside");
  std::ofstream(dir_ / "beside/secret") << "secret";
  fs::create_symlink("../beside", at("link"));
  fs::create_symlink("../beside/secret", at("file-link"));
  EXPECT_FALSE(find("link/secret"));
  for (const char *path :
       {"..", "../beside/secret", "d/../../beside", "/etc/passwd", "/", "d//e", "d/", ".", "./d"})
    EXPECT_FALSE(remote_.find(path).ok()) << path;
  EXPECT_FALSE(remote_.find(std::string("link\0/x", 7)).ok());
  struct stat status;
  ASSERT_EQ(stat((dir_ / "beside/secret").c_str(), &status), 0);
  for (const char *path : {"file-link", "link/secret", "../beside/secret", "/etc/passwd"})
    EXPECT_NE(error_of(remote::ReadQuestion{path, {status.st_dev, status.st_ino}, 0, 10}), 0)
        << path;
  ASSERT_EQ(stat((dir_ / "beside").c_str(), &status), 0);
  for (const char *path : {"link", "../beside", ".."})
    EXPECT_NE(error_of(remote::ListQuestion{path, {status.st_dev, status.st_ino}, ""}), 0) << path;
}

TEST_F(RemoteSourceTest, what_is_excluded_does_not_exist) {
  fs::create_directories(at("out/below"));
  put("out/secret", "secret");
  put("in", "text");
  EXPECT_FALSE(find("out"));
  EXPECT_FALSE(find("out/secret"));
  const auto root = find("");
  ASSERT_TRUE(root);
  const auto entries = remote_.entries(*root);
  ASSERT_TRUE(entries.ok());
  ASSERT_EQ(entries->size(), 1u);
  EXPECT_EQ(entries->front().name, "in");
  struct stat status;
  ASSERT_EQ(stat(at("out/secret").c_str(), &status), 0);
  EXPECT_EQ(error_of(remote::ReadQuestion{"out/secret", {status.st_dev, status.st_ino}, 0, 10}),
            ENOENT);
  ASSERT_EQ(stat(at("out").c_str(), &status), 0);
  EXPECT_EQ(error_of(remote::ListQuestion{"out", {status.st_dev, status.st_ino}, ""}), ENOENT);
}

TEST_F(RemoteSourceTest, a_large_directory_comes_in_parts_and_its_children_with_few_questions) {
  fs::create_directory(at("d"));
  constexpr std::size_t kFiles = 5000;
  const std::string longish(200, 'n');
  for (std::size_t i = 0; i < kFiles; ++i) put("d/" + longish + std::to_string(i), "");
  const auto directory = find("d");
  ASSERT_TRUE(directory);
  const std::uint64_t before = line_.asked();
  const auto entries = remote_.entries(*directory);
  ASSERT_TRUE(entries.ok()) << entries.error().text;
  EXPECT_EQ(entries->size(), kFiles);
  EXPECT_GT(line_.asked() - before, 1u);
  for (const DirectoryEntry &entry : *entries) {
    const auto child = remote_.child(*directory, entry);
    ASSERT_TRUE(child.ok() && *child) << entry.name;
    EXPECT_EQ((*child)->status.st_ino, entry.inode);
  }
  EXPECT_LT(line_.asked() - before, 30u);
}

TEST_F(RemoteSourceTest, expected_paths_come_together_and_each_is_used_once) {
  for (int i = 0; i < 100; ++i) put("f" + std::to_string(i), "1");
  std::vector<std::string> paths;
  for (int i = 0; i < 100; ++i) paths.push_back("f" + std::to_string(i));
  paths.insert(paths.begin() + 50, "absent");
  remote_.expect(paths);
  const std::uint64_t before = line_.asked();
  for (const std::string &path : paths) EXPECT_EQ(find(path).has_value(), path != "absent");
  EXPECT_EQ(line_.asked() - before, 1u);
  put("f3", "longer");
  EXPECT_EQ(find("f3")->status.st_size, 6);
  remote_.expect(paths);
  EXPECT_TRUE(find("f0"));
  put("f9", "longest");
  remote_.expect({});
  EXPECT_EQ(find("f9")->status.st_size, 7);
}

TEST_F(RemoteSourceTest, reads_data_and_tells_holes) {
  constexpr std::uint64_t kMiB = 1 << 20;
  const UniqueFd file(open(at("f").c_str(), O_RDWR | O_CREAT, 0600));
  std::string data(kMiB, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  ASSERT_EQ(pwrite(file.get(), data.data(), data.size(), 3 * kMiB), static_cast<ssize_t>(kMiB));
  ASSERT_EQ(pwrite(file.get(), "end", 3, 9 * kMiB), 3);
  const auto object = find("f");
  const auto reading = remote_.open(*object);
  ASSERT_TRUE(reading.ok());
  const auto status = (*reading)->begin(0, ~std::uint64_t{0});
  ASSERT_TRUE(status.ok()) << status.error().text;
  std::string holes;
  const std::string read = read_all(**reading, 9 * kMiB + 3, &holes);
  EXPECT_EQ(holes, "0-3145728 4194304-9437184 ");
  EXPECT_EQ(read.substr(3 * kMiB, kMiB), data);
  EXPECT_EQ(read.substr(9 * kMiB), "end");
  // Behind the end there is nothing.
  const auto behind = (*reading)->data_from(9 * kMiB + 3, 20 * kMiB);
  ASSERT_TRUE(behind.ok());
  EXPECT_EQ(behind->begin, 20 * kMiB);
  EXPECT_TRUE(same_time((*reading)->end()->st_ctim, status->st_ctim));
}

/* One answer has the data, the attributes and the status before and after. */
TEST_F(RemoteSourceTest, a_small_file_is_one_question) {
  put("f", std::string(300'000, 'x'));
  const auto object = find("f");
  const std::uint64_t before = line_.asked();
  const auto file = remote_.open(*object);
  ASSERT_TRUE((*file)->begin(0, ~std::uint64_t{0}).ok());
  EXPECT_EQ(read_all(**file, 300'000), std::string(300'000, 'x'));
  EXPECT_TRUE((*file)->xattrs().ok());
  EXPECT_TRUE((*file)->end().ok());
  EXPECT_EQ(line_.asked() - before, 1u);
}

/* The status behind all that was read is of the time behind all that was read. */
TEST_F(RemoteSourceTest, a_change_between_two_parts_shows) {
  put("f", std::string(2'000'000, 'x'));
  const auto object = find("f");
  const auto file = remote_.open(*object);
  const auto status = (*file)->begin(0, ~std::uint64_t{0});
  read_all(**file, 2'000'000);
  usleep(20'000);
  ASSERT_EQ(chmod(at("f").c_str(), 0600), 0);
  EXPECT_FALSE(same_time((*file)->end()->st_ctim, status->st_ctim));
}

TEST_F(RemoteSourceTest, another_object_of_the_path_is_told) {
  put("f", std::string(2'000'000, 'x'));
  fs::create_directory(at("d"));
  const auto object = find("f"), directory = find("d");
  const auto file = remote_.open(*object);
  ASSERT_TRUE((*file)->begin(0, ~std::uint64_t{0}).ok());
  put("g", std::string(2'000'000, 'y'));
  fs::rename(at("g"), at("f"));
  EXPECT_EQ((*file)->data_from(1'500'000, 2'000'000).error().code, -ENOENT);
  EXPECT_EQ((*file)->begin(0, 1).error().code, -ENOENT);
  fs::rename(at("d"), at("moved"));
  EXPECT_EQ(remote_.entries(*directory).error().code, -ENOENT);
  fs::remove(at("f"));
  ASSERT_EQ(mkfifo(at("f").c_str(), 0600), 0);
  const auto fifo = find("f");
  EXPECT_EQ(error_of(remote::ReadQuestion{"f", {fifo->status.st_dev, fifo->status.st_ino}, 0, 1}),
            ENOENT);
}

TEST_F(RemoteSourceTest, a_host_that_does_not_answer_is_away) {
  put("f", "text");
  const auto object = find("f");
  line_.cut();
  for (const int error : {remote_.find("f").error().code, remote_.entries(*object).error().code,
                          (*remote_.open(*object))->begin(0, 1).error().code})
    EXPECT_EQ(error, -EHOSTDOWN);
  EXPECT_TRUE(remote_.now().ok()) << "as the answers before have told";
  RemoteSource fresh(line_);
  EXPECT_EQ(fresh.now().error().code, -EHOSTDOWN);
}

/* Whoever goes over many objects would wait for each, also when told to stop. */
TEST_F(RemoteSourceTest, a_host_that_has_not_answered_is_not_asked_for_each_of_many) {
  put("f", "text");
  line_.cut();
  const std::uint64_t before = line_.asked();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(remote_.find("f").error().code, -EHOSTDOWN);
  EXPECT_NE(remote_.find("f").error().text.find("the line is cut"), std::string::npos);
  EXPECT_LE(line_.asked() - before, 6u);
  line_.mend();
  while (!remote_.find("f")) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

TEST_F(RemoteSourceTest, a_source_that_is_not_there_is_away_too) {
  fs::remove_all(source_);
  const auto found = remote_.find("f");
  ASSERT_FALSE(found.ok());
  EXPECT_EQ(found.error().code, -EHOSTDOWN);
  EXPECT_NE(found.error().text.find("mount it"), std::string::npos) << found.error().text;
}

TEST_F(RemoteSourceTest, the_clock_is_the_sources) {
  ASSERT_TRUE(find(""));
  const std::int64_t before = now_us();
  const auto now = remote_.now();
  ASSERT_TRUE(now.ok());
  EXPECT_LE(*now, now_us());
  EXPECT_GT(*now, before - 60'000'000);
}

std::string kinds_of(const Result<std::vector<Difference>> &found) {
  if (!found) return found.error().text;
  std::string text;
  for (const Difference &difference : *found)
    text += difference.path + ": " + difference.kind + "\n";
  return text;
}

/* Only hashes of the data come over the line. */
TEST_F(RemoteSourceTest, a_comparison_finds_what_differs) {
  const std::string copy = dir_ / "copy";
  fs::create_directories(at("d/e"));
  fs::create_directory(at("out"));
  std::string large(70 << 20, 'x');
  for (std::size_t i = 0; i < large.size(); i += 4096) large[i] = static_cast<char>(i >> 12);
  put("d/large", large);
  put("d/same", "text");
  put("d/e/mode", "text");
  put("d/e/gone", "text");
  put("d/e/attribute", "text");
  put("out/excluded", "text");
  ASSERT_EQ(setxattr(at("d/e/attribute").c_str(), "user.a", "b", 1, 0), 0);
  fs::create_symlink("target", at("d/link"));
  ASSERT_EQ(system(("cp -a --sparse=never " + source_ + " " + copy).c_str()), 0);
  RemoteTree tree(line_);
  VerifyOptions options;
  options.included = [](const std::string &path) { return path != "out"; };
  const std::uint64_t before = line_.moved();
  EXPECT_EQ(kinds_of(verify_trees(tree, copy, options)), "");
  EXPECT_LT(line_.moved() - before, 20'000u);
  const auto written = fs::last_write_time(copy + "/d/large");
  std::fstream file(copy + "/d/large", std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(68 << 20).put('?');
  file.close();
  fs::last_write_time(copy + "/d/large", written);
  fs::permissions(copy + "/d/e/mode", fs::perms{0600});
  fs::remove(copy + "/d/e/gone");
  ASSERT_EQ(removexattr((copy + "/d/e/attribute").c_str(), "user.a"), 0);
  fs::remove(copy + "/d/link");
  fs::create_symlink("elsewhere", copy + "/d/link");
  const std::string found = kinds_of(verify_trees(tree, copy, options));
  for (const char *line : {"d/large: data\n", "d/e/mode: mode\n", "d/e/gone: missing\n",
                           "d/e/attribute: xattr\n", "d/link: symlink\n"})
    EXPECT_NE(found.find(line), std::string::npos) << line << " in:\n" << found;
  // The block that differs is moved, and no other.
  const std::uint64_t verified = line_.moved();
  const auto differing = verify_trees(tree, copy, options);
  ASSERT_TRUE(differing.ok());
  EXPECT_EQ(kinds_of(repair_trees(tree, copy, *differing, options)), "");
  EXPECT_LT(line_.moved() - verified, 3u << 20);
  EXPECT_EQ(kinds_of(verify_trees(tree, copy, options)), "");
  EXPECT_TRUE(fs::exists(copy + "/out/excluded"));
  line_.cut();
  EXPECT_NE(kinds_of(verify_trees(tree, copy, options)), "");
}

TEST_F(RemoteSourceTest, holes_are_counted) {
  put("f", "begin");
  ASSERT_EQ(truncate(at("f").c_str(), 1 << 20), 0);
  RemoteTree tree(line_);
  const auto bytes = tree.hole_bytes("f");
  ASSERT_TRUE(bytes.ok()) << bytes.error().text;
  EXPECT_GE(*bytes, (1u << 20) - 65536);
  EXPECT_EQ(tree.hole_bytes("absent").error().code, -ENOENT);
}

TEST_F(RemoteSourceTest, what_is_no_question_is_answered_with_a_failure) {
  const std::vector<std::byte> garbage(100, std::byte{1});
  const auto bytes = line_.ask(garbage);
  ASSERT_TRUE(bytes.ok());
  const auto answer = remote::decode_answer(*bytes);
  ASSERT_TRUE(answer.ok());
  EXPECT_EQ(std::get<remote::Failure>(answer->answer).error, EBADMSG);
}

}  // namespace
}  // namespace tarn::test
