// SPDX-License-Identifier: GPL-2.0
// From records to the replica: what each kind of record does.
#include "mirrord/applier.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using Outcome = Applier::Outcome;

class ApplierTest : public testing::Test {
 protected:
  ApplierTest() {
    umask(0);
    replica_.emplace(std::move(*Replica::open(dir_.path())));
    applier_.emplace("/src", *replica_);
  }
  Result<Outcome> apply(const Packet &packet) {
    return applier_->apply(std::get<Record>(*decode(packet)));
  }
  void expect(const Packet &packet, Outcome outcome) {
    const auto result = apply(packet);
    ASSERT_TRUE(result.ok()) << result.error().text;
    EXPECT_EQ(*result, outcome);
  }
  std::string contents(const std::string &name) const {
    std::ifstream in(dir_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  TemporaryDirectory dir_;
  std::optional<Replica> replica_;
  std::optional<Applier> applier_;
};

TEST_F(ApplierTest, every_kind_of_record) {
  expect(name_change(OX_OP_MKDIR, {}, "/src/d", {}, 0755), Outcome::kApplied);
  expect(name_change(OX_OP_CREATE, {}, "/src/d/f", {}, 0100600), Outcome::kApplied);
  expect(write_data({}, "/src/d/f", 2, "data")[0], Outcome::kApplied);
  EXPECT_EQ(contents("d/f"), std::string("\0\0data", 6));
  expect(name_change(OX_OP_LINK, {}, "/src/d/f", "/src/g"), Outcome::kApplied);
  EXPECT_EQ(fs::hard_link_count(dir_ / "g"), 2u);
  expect(name_change(OX_OP_RENAME, {}, "/src/g", "/src/h", 0100600), Outcome::kApplied);
  expect(name_change(OX_OP_SYMLINK, {}, "/src/l", "/any where/\xff", 07777), Outcome::kApplied);
  EXPECT_EQ(fs::read_symlink(dir_ / "l").string(), "/any where/\xff");
  expect(set_attributes(
             {}, {"/src/d/f", OX_ATTR_MODE | OX_ATTR_MTIME, 0640, 0, 0, 99, 1, 2'000'003, 4}),
         Outcome::kApplied);
  struct stat s {};
  stat((dir_ / "h").c_str(), &s);
  EXPECT_EQ(s.st_mode & 07777, mode_t{0640});
  EXPECT_EQ(s.st_size, 6) << "the size was not named";
  EXPECT_EQ(s.st_mtim.tv_sec, 2);
  EXPECT_EQ(s.st_mtim.tv_nsec, 3000);
  expect(name_change(OX_OP_UNLINK, {}, "/src/h"), Outcome::kApplied);
  expect(name_change(OX_OP_UNLINK, {}, "/src/d/f"), Outcome::kApplied);
  expect(name_change(OX_OP_RMDIR, {}, "/src/d"), Outcome::kApplied);
  expect(name_change(OX_OP_RMDIR, {}, "/src/d"), Outcome::kAlready);
}

TEST_F(ApplierTest, pages_of_a_write) {
  std::string data(20000, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 % 251);
  expect(name_change(OX_OP_CREATE, {}, "/src/f", {}, 0644), Outcome::kApplied);
  for (const Packet &page : write_data({3}, "/src/f", 5, data)) expect(page, Outcome::kApplied);
  EXPECT_EQ(contents("f"), std::string(5, '\0') + data);
}

TEST_F(ApplierTest, other_directories_are_not_its_business) {
  expect(name_change(OX_OP_CREATE, {}, "/srcx/f", {}, 0644), Outcome::kOutside);
  expect(name_change(OX_OP_RENAME, {}, "/other/a", "/other/b"), Outcome::kOutside);
  expect(name_change(OX_OP_LINK, {}, "/src/a", "/other/b"), Outcome::kOutside);
  expect(write_data({4}, "/other/f", 0, std::string(9000, 'x'))[0], Outcome::kOutside);
  EXPECT_TRUE(fs::is_empty(dir_.path()));
}

TEST_F(ApplierTest, without_a_source_to_look_at) {
  EXPECT_FALSE(apply(name_change(OX_OP_RENAME, {}, "/other/a", "/src/b")).ok());
  EXPECT_FALSE(apply(name_change(OX_OP_LINK, {}, "/other/a", "/src/b")).ok());
  EXPECT_FALSE(apply(write_data({}, "/src/gone", 0, "x")[0]).ok());
  EXPECT_TRUE(fs::is_empty(dir_.path()));
}

TEST_F(ApplierTest, files_without_a_name_any_more) {
  const Stamp nameless{.cp = OX_CP_NAMELESS};
  // The text is cut: it is the name of another file.
  expect(name_change(OX_OP_CREATE, {}, "/src/abc", {}, 0100644), Outcome::kApplied);
  expect(write_data({}, "/src/abc", 0, "new")[0], Outcome::kApplied);
  expect(write_data(nameless, "/src/abc", 0, "OLD")[0], Outcome::kNameless);
  expect(
      set_attributes(nameless, {"/src/abc", OX_ATTR_SIZE | OX_ATTR_MODE, 04777, 0, 0, 0, 0, 0, 0}),
      Outcome::kNameless);
  for (const Packet &page :
       write_data({8, rule_uuid(), kTime, OX_CP_NAMELESS}, "/src/abc", 0, std::string(9000, 'x')))
    expect(page, Outcome::kNameless);
  EXPECT_EQ(contents("abc"), "new");
  struct stat s {};
  stat((dir_ / "abc").c_str(), &s);
  EXPECT_EQ(s.st_mode & 07777, mode_t{0644});
  // A file may really be called so.
  EXPECT_FALSE(apply(write_data({}, "/src/f (deleted)", 0, "x")[0]).ok());
  expect(name_change(OX_OP_CREATE, {}, "/src/f (deleted)", {}, 0644), Outcome::kApplied);
  expect(write_data({}, "/src/f (deleted)", 0, "x")[0], Outcome::kApplied);
}

TEST_F(ApplierTest, a_file_whose_name_is_not_known) {
  const Stamp unplaced{.cp = OX_CP_UNPLACED};
  expect(name_change(OX_OP_CREATE, {}, "/src/f", {}, 0100644), Outcome::kApplied);
  EXPECT_EQ(apply(write_data(unplaced, "/src/f", 0, "x")[0]).error().code, -ESTALE);
  EXPECT_EQ(contents("f"), "");
}

TEST_F(ApplierTest, a_missing_directory_is_no_repetition) {
  EXPECT_EQ(apply(name_change(OX_OP_UNLINK, {}, "/src/lost/f")).error().code, -ENOENT);
  EXPECT_EQ(apply(name_change(OX_OP_RMDIR, {}, "/src/lost/d")).error().code, -ENOENT);
  expect(name_change(OX_OP_UNLINK, {}, "/src/f"), Outcome::kAlready);
  expect(name_change(OX_OP_RMDIR, {}, "/src/d"), Outcome::kAlready);
}

TEST_F(ApplierTest, paths_that_try_to_leave) {
  for (const char *path : {"/src/../x", "/src/d/../../x", "/src//etc", "/src/./f"})
    EXPECT_EQ(apply(name_change(OX_OP_CREATE, {}, path, {}, 0644)).error().code, -EXDEV) << path;
}

}  // namespace
}  // namespace tarn
