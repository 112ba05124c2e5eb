// SPDX-License-Identifier: GPL-2.0
#include "client/control.h"

#include <gtest/gtest.h>

#include "client/run_dir.h"
#include "client/workdir.h"
#include "module/os_public/Include/ox_msg.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;

class ControlTest : public testing::Test {
 protected:
  ControlTest() : channel_(std::move(*ControlChannel::connect(fake_.run_dir()))) {}

  TemporaryDirectory directory_;
  FakeTarnd fake_{directory_ / "run"};
  ControlChannel channel_;
};

Rule rule(std::uint8_t n, const std::string &path = "/d") {
  return {rule_uuid(n), *make_workdir({{path}, {}})};
}

TEST_F(ControlTest, RulesComeAndGo) {
  EXPECT_EQ(*channel_.count_rules(), 0);
  EXPECT_TRUE(channel_.list_rules()->empty());
  ASSERT_TRUE(channel_.add_rule(rule(1, "/a")).ok());
  ASSERT_TRUE(channel_.add_rule(rule(2, "/b")).ok());
  EXPECT_EQ(*channel_.count_rules(), 2);
  EXPECT_TRUE(*channel_.rule_exists(rule_uuid(1)));
  EXPECT_FALSE(*channel_.rule_exists(rule_uuid(3)));
  EXPECT_EQ(channel_.get_rule(rule_uuid(2))->workdir, rule(2, "/b").workdir);
  const auto rules = channel_.list_rules();
  ASSERT_EQ(rules->size(), 2u);
  EXPECT_EQ((*rules)[0].uuid, rule_uuid(1));
  EXPECT_EQ((*rules)[1].workdir, rule(2, "/b").workdir);
  ASSERT_TRUE(channel_.delete_rule(rule_uuid(1)).ok());
  EXPECT_EQ(*channel_.count_rules(), 1);
  ASSERT_TRUE(channel_.flush_rules().ok());
  EXPECT_EQ(*channel_.count_rules(), 0);
}

TEST_F(ControlTest, ManyRulesComeInPieces) {
  for (std::uint8_t n = 1; n <= 12; ++n) ASSERT_TRUE(channel_.add_rule(rule(n)).ok());
  fake_.with([](auto &state) { state.count_is_wrong_once = true; });
  const auto rules = channel_.list_rules();
  ASSERT_TRUE(rules.ok()) << rules.error().text;
  ASSERT_EQ(rules->size(), 12u);
  EXPECT_EQ((*rules)[11].uuid, rule_uuid(12));
}

TEST_F(ControlTest, RuleErrorsSayWhatToDo) {
  ASSERT_TRUE(channel_.add_rule(rule(1)).ok());
  EXPECT_EQ(channel_.add_rule(rule(1)).error().text,
            "rule 10111213-1415-1617-1819-1A1B1C1D1E1F: exists already: delete it first or choose "
            "another UUID");
  EXPECT_EQ(channel_.delete_rule(rule_uuid(2)).error().code, OX_ERR_NOENT);
  EXPECT_EQ(channel_.get_rule(rule_uuid(2)).error().code, OX_ERR_NOENT);
  const auto too_long = channel_.add_rule({rule_uuid(3), std::string(16000, 'x')});
  EXPECT_EQ(too_long.error().code, -E2BIG);
}

TEST_F(ControlTest, EveryResultOfTheModuleHasItsText) {
  for (const int result : {-1000, -1001, -1002, -1003, -1004, -1005, -1007, -1, -12, -92, 17}) {
    fake_.with([&](auto &state) { state.forced_result = result; });
    const auto flushed = channel_.flush_rules();
    ASSERT_FALSE(flushed.ok()) << result;
    EXPECT_EQ(flushed.error().code, result);
    EXPECT_TRUE(flushed.error().text.starts_with("rules: ")) << flushed.error().text;
    EXPECT_EQ(flushed.error().text.find("Unknown error"), std::string::npos)
        << flushed.error().text;
    EXPECT_FALSE(channel_.count_rules().ok());
  }
}

TEST_F(ControlTest, DirectoriesAndDaemonPath) {
  ASSERT_TRUE(channel_.add_directory(rule_uuid(1), "/rep").ok());
  EXPECT_EQ(fake_.with([](auto &state) { return std::string(state.directories[0].c_str() + 16); }),
            "/rep");
  EXPECT_EQ(channel_.add_directory(rule_uuid(1), "/rep").error().code, OX_ERR_EXIST);
  EXPECT_EQ(channel_.add_directory(rule_uuid(2), "rep").error().code, -EINVAL);
  EXPECT_TRUE(channel_.add_directory(rule_uuid(2), "/" + std::string(510, 'x')).ok());
  EXPECT_EQ(channel_.add_directory(rule_uuid(3), "/" + std::string(511, 'x')).error().code,
            -EINVAL);
  EXPECT_TRUE(channel_.delete_directory(rule_uuid(1)).ok());
  EXPECT_EQ(channel_.delete_directory(rule_uuid(1)).error().code, OX_ERR_NOENT);
  EXPECT_TRUE(channel_.flush_directories().ok());
  ASSERT_TRUE(channel_.set_daemon_path("/usr/sbin/mirrord").ok());
  EXPECT_EQ(fake_.with([](auto &state) { return state.daemon_path; }), "/usr/sbin/mirrord");
  EXPECT_EQ(channel_.set_daemon_path("mirrord").error().code, -EINVAL);
}

TEST_F(ControlTest, MountsWithAnyBytes) {
  const std::string lower = "/lo w\\er\n\xff";
  ASSERT_TRUE(channel_.mount(lower, "/mnt a").ok());
  const auto mounts = channel_.mounts();
  ASSERT_EQ(mounts->size(), 1u);
  EXPECT_EQ((*mounts)[0].lower, lower);
  EXPECT_EQ((*mounts)[0].mountpoint, "/mnt a");
  EXPECT_EQ((*mounts)[0].options, "rw");
  EXPECT_EQ(channel_.mount("/x", "/mnt a").error().text, "something is mounted at /mnt a");
  ASSERT_TRUE(channel_.umount("/mnt a", ControlChannel::Umount::kIfIdle).ok());
  EXPECT_EQ(channel_.umount("/mnt a", ControlChannel::Umount::kLazily).error().code, -EINVAL);
}

TEST_F(ControlTest, Log) {
  fake_.with([](auto &state) { state.log = {"one", "", "three"}; });
  const auto part = channel_.log(1, std::chrono::milliseconds(0));
  ASSERT_EQ(part->lines.size(), 2u);
  EXPECT_EQ(part->lines[0].number, 1u);
  EXPECT_EQ(part->lines[0].text, "");
  EXPECT_EQ(part->lines[1].text, "three");
  EXPECT_EQ(part->lines[1].level, 2u);
  EXPECT_EQ(part->next, 3u);
}

TEST_F(ControlTest, UnknownOption) {
  EXPECT_EQ(*channel_.set_option(178, {}), OX_ERR_REQUEST);
  EXPECT_EQ(channel_.set_option(177, std::vector<std::byte>(70000)).error().code, -E2BIG);
}

TEST(Connect, NobodyThere) {
  TemporaryDirectory directory;
  for (const std::string &run_dir : {directory / "absent", directory.path()}) {
    const auto channel = ControlChannel::connect(run_dir);
    ASSERT_FALSE(channel.ok());
    EXPECT_TRUE(nobody_there(channel.error()));
    EXPECT_TRUE(channel.error().text.starts_with("no tarnd runs in /")) << channel.error().text;
  }
}

TEST(Connect, ALongRunDirectory) {
  TemporaryDirectory directory;
  const FakeTarnd fake(directory / std::string(120, 'r'));
  EXPECT_TRUE(ControlChannel::connect(fake.run_dir()).ok());
}

TEST(Connect, RunDirectoryOfTheEnvironment) {
  const char *old = std::getenv("TARN_RUN_DIR");
  const std::string saved = old ? old : "";
  setenv("TARN_RUN_DIR", "/some/where", 1);
  EXPECT_EQ(run_directory(), "/some/where");
  unsetenv("TARN_RUN_DIR");
  if (geteuid() == 0) {
    EXPECT_EQ(run_directory(), "/run/tarn");
  }
  if (old) setenv("TARN_RUN_DIR", saved.c_str(), 1);
}

}  // namespace
}  // namespace tarn
