// SPDX-License-Identifier: GPL-2.0
// What a mirrord keeps for the next one.
#include "mirrord/state.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class StateTest : public testing::Test {
 protected:
  StateTest() {
    setenv("TARN_STATE_DIR", (dir_ / "a/b").c_str(), 1);
    fs::create_directory(dir_ / "replica");
  }
  ~StateTest() override { unsetenv("TARN_STATE_DIR"); }
  StateFile open(const std::string &source = "/src") {
    auto file = StateFile::open(source, dir_ / "replica");
    if (!file) throw std::runtime_error(file.error().text);
    return std::move(*file);
  }

  TemporaryDirectory dir_;
  const StateFile::Positions positions_{{rule_uuid(1), {7, 12}}, {rule_uuid(2), {0, 0xffffffff}}};
};

TEST_F(StateTest, what_was_kept_is_found_again) {
  EXPECT_TRUE(open().read()->empty());
  ASSERT_TRUE(open().write({}).ok());
  ASSERT_TRUE(open().write(positions_).ok());
  EXPECT_EQ(*open().read(), positions_);
  EXPECT_TRUE(open("/other").read()->empty());
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_ / "a/b"), {}), 1) << "nothing is left over";
}

TEST_F(StateTest, it_belongs_to_the_replica_not_to_its_name) {
  ASSERT_TRUE(open().write(positions_).ok());
  fs::rename(dir_ / "replica", dir_ / "old");
  fs::create_directory(dir_ / "replica");
  EXPECT_TRUE(open().read()->empty());
  fs::remove(dir_ / "replica");
  fs::rename(dir_ / "old", dir_ / "replica");
  EXPECT_EQ(*open().read(), positions_);
}

TEST_F(StateTest, what_cannot_be_read_is_no_first_start) {
  const StateFile file = open();
  for (const char *text : {"", "{}", "{\"source\": \"/src\"}"}) {
    std::ofstream(file.path()) << text;
    const auto read = file.read();
    ASSERT_FALSE(read.ok());
    EXPECT_NE(read.error().text.find("is not the state of the replica"), std::string::npos);
  }
}

TEST_F(StateTest, a_directory_that_cannot_be_is_said) {
  std::ofstream(dir_ / "file");
  setenv("TARN_STATE_DIR", (dir_ / "file/below").c_str(), 1);
  const auto file = StateFile::open("/src", dir_ / "replica");
  ASSERT_FALSE(file.ok());
  EXPECT_NE(file.error().text.find("Not a directory"), std::string::npos) << file.error().text;
  EXPECT_NE(file.error().text.find("TARN_STATE_DIR"), std::string::npos);
}

}  // namespace
}  // namespace tarn
