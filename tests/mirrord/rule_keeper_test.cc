// SPDX-License-Identifier: GPL-2.0
// What the service sets in the module, and that it is set again and only then.
#include "mirrord/config/rule_keeper.h"

#include <gtest/gtest.h>

#include <cstring>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "client/workdir.h"
#include "module/os_public/Include/ox_msg.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
using Uuids = std::vector<Uuid>;

class RuleKeeperTest : public testing::Test {
 protected:
  RuleKeeper keeper(std::vector<RuleKeeper::Wanted> wanted) {
    return RuleKeeper(tarnd_site(fake_->run_dir()), "/usr/sbin/mirrord", std::move(wanted));
  }
  /* "+N" for an added rule, "=N" for a kept one; the text of an error. */
  static std::string kept(RuleKeeper &keeper) {
    const auto changed = keeper.keep();
    if (!changed) return changed.error().text;
    std::string text;
    for (const auto &[sign, uuids] : {std::pair('+', changed->added), {'=', changed->kept}}) {
      for (const Uuid &uuid : uuids) {
        for (std::uint8_t n = 1; n < 9; ++n) {
          if (uuid == rule_uuid(n)) text += fmt::format("{}{} ", sign, n);
        }
      }
    }
    return text;
  }
  std::vector<std::string> directories() {
    return fake_->with([](auto &state) {
      std::vector<std::string> paths;
      for (const std::string &record : state.directories)
        paths.push_back(record.c_str() + OX_UUID_LEN);
      return paths;
    });
  }
  std::string workdir(std::size_t rule) {
    return fake_->with([&](auto &state) {
      return rule < state.rules.size() ? std::string(state.rules[rule].c_str() + OX_UUID_LEN) : "";
    });
  }
  ControlChannel connect() {
    return std::move(*ControlChannel::connect(tarnd_site(fake_->run_dir())));
  }

  TemporaryDirectory dir_;
  std::unique_ptr<FakeTarnd> fake_ = std::make_unique<FakeTarnd>(dir_ / "run");
  const RuleKeeper::Wanted a_{rule_uuid(1), "/no/a", {"/no/a/x", "/no/a/tmp"}};
  const RuleKeeper::Wanted b_{rule_uuid(2), "/no/b"};
};

TEST_F(RuleKeeperTest, what_is_missing_is_set_and_what_is_there_is_kept) {
  RuleKeeper keeper = this->keeper({a_, b_});
  EXPECT_EQ(kept(keeper), "+1 +2 ");
  EXPECT_EQ(workdir(0), *make_workdir({{"/no/a"}, {"/no/a/tmp", "/no/a/x"}}));
  EXPECT_EQ(workdir(1), *make_workdir({{"/no/b"}, {}}));
  EXPECT_EQ(fake_->with([](auto &state) { return state.daemon_path; }), "/usr/sbin/mirrord");
  EXPECT_EQ(kept(keeper), "=1 =2 ");
  RuleKeeper next = this->keeper({a_, b_});
  EXPECT_EQ(kept(next), "=1 =2 ") << "a service that is started again";
  EXPECT_EQ(fake_->with([](auto &state) { return state.rules.size(); }), 2u);
}

TEST_F(RuleKeeperTest, what_others_change_is_set_again) {
  RuleKeeper keeper = this->keeper({a_, b_});
  kept(keeper);
  ASSERT_TRUE(connect().delete_rule(rule_uuid(2)).ok());
  ASSERT_TRUE(connect().set_daemon_path("/bin/other").ok());
  EXPECT_EQ(kept(keeper), "+2 =1 ");
  EXPECT_EQ(fake_->with([](auto &state) { return state.daemon_path; }), "/usr/sbin/mirrord");
  ASSERT_TRUE(connect().delete_rule(rule_uuid(1)).ok());
  ASSERT_TRUE(connect().add_rule({rule_uuid(1), *make_workdir({{"/no/a"}, {}})}).ok());
  ASSERT_TRUE(connect().add_rule({rule_uuid(7), *make_workdir({{"/other"}, {}})}).ok());
  EXPECT_EQ(kept(keeper), "+1 =2 ") << "other excludes";
  EXPECT_EQ(connect().get_rule(rule_uuid(1))->workdir,
            *make_workdir({{"/no/a"}, {"/no/a/tmp", "/no/a/x"}}));
  EXPECT_TRUE(*connect().rule_exists(rule_uuid(7))) << "others' rules are left alone";
}

TEST_F(RuleKeeperTest, another_tarnd_is_told_all) {
  RuleKeeper keeper = this->keeper({a_, b_});
  kept(keeper);
  fake_.reset();
  const auto gone = keeper.keep();
  ASSERT_FALSE(gone.ok());
  EXPECT_TRUE(no_tarnd_there(gone.error())) << gone.error().text;
  fake_ = std::make_unique<FakeTarnd>(dir_ / "run");
  EXPECT_EQ(kept(keeper), "+1 +2 ");
  EXPECT_EQ(fake_->with([](auto &state) { return state.daemon_path; }), "/usr/sbin/mirrord");
}

TEST_F(RuleKeeperTest, what_was_added_is_told_after_a_failure_too) {
  // The replicated directory does not fit the module's record; rules are set all the same.
  fake_->with([](auto &state) { state.mounts = {{"/no", "/no/mnt"}}; });
  RuleKeeper::Wanted wanted = a_;
  wanted.targets = {{rule_uuid(3), "/no/" + std::string(600, 'x')}};
  RuleKeeper keeper = this->keeper({wanted, b_});
  const std::string text = kept(keeper);
  EXPECT_TRUE(text.starts_with("cannot set the replicated directory /no/xxx")) << text;
  EXPECT_NE(text.find("at most 511 bytes"), std::string::npos) << text;
  EXPECT_EQ(fake_->with([](auto &state) { return state.rules.size(); }), 2u);
  fake_->with([](auto &state) { state.mounts.clear(); });
  EXPECT_EQ(kept(keeper), "+1 +2 ");
  EXPECT_EQ(kept(keeper), "=1 =2 ");
}

TEST_F(RuleKeeperTest, errors_name_what_has_failed) {
  RuleKeeper keeper = this->keeper({a_, b_});
  fake_->with([](auto &state) { state.forced_result = OX_ERR_NOMEM; });
  EXPECT_EQ(kept(keeper),
            "daemon /usr/sbin/mirrord: the module is out of memory: free some and try again");
  fake_->with([](auto &state) { state.forced_result = 0; });
  RuleKeeper::Wanted wanted = a_;
  for (int n = 0; n < 200; ++n)
    wanted.exclude.push_back(fmt::format("/no/a/{}{}", std::string(100, 'x'), n));
  RuleKeeper large = this->keeper({b_, wanted});
  const std::string text = kept(large);
  EXPECT_TRUE(text.starts_with("cannot set the rule of /no/a: the rule's text needs ")) << text;
  EXPECT_EQ(fake_->with([](auto &state) { return state.rules.size(); }), 0u)
      << "nothing is changed";
}

TEST_F(RuleKeeperTest, targets_that_a_mount_shows_are_replicated_directories) {
  RuleKeeper::Wanted wanted = a_;
  wanted.targets = {{rule_uuid(3), "/no/mnt/copy"},
                    {rule_uuid(4), "/no/low/copy"},
                    {rule_uuid(5), "/no/elsewhere"}};
  RuleKeeper keeper = this->keeper({wanted});
  EXPECT_EQ(kept(keeper), "+1 ");
  EXPECT_EQ(directories(), (std::vector<std::string>{})) << "no mount, no renames through it";
  fake_->with([](auto &state) { state.mounts = {{"/no/a", "/no/mnt"}, {"/no/low", "/no/other"}}; });
  EXPECT_EQ(kept(keeper), "=1 ");
  // With a slash: the module compares beginnings of paths. The source is in none of them.
  EXPECT_EQ(directories(), (std::vector<std::string>{"/no/a/copy/", "/no/low/copy/"}));
  EXPECT_EQ(kept(keeper), "=1 ");
  EXPECT_EQ(directories().size(), 2u);
  ASSERT_TRUE(connect().flush_directories().ok());
  kept(keeper);
  EXPECT_EQ(directories().size(), 2u) << "set again";
}

TEST_F(RuleKeeperTest, a_replicated_directory_of_another_path_is_replaced) {
  fake_->with([](auto &state) { state.mounts = {{"/no", "/mnt"}}; });
  ASSERT_TRUE(connect().add_directory(rule_uuid(3), "/no/before/").ok());
  RuleKeeper::Wanted wanted = a_;
  wanted.targets = {{rule_uuid(3), "/mnt/copy"}};
  RuleKeeper keeper = this->keeper({wanted});
  kept(keeper);
  EXPECT_EQ(directories(), (std::vector<std::string>{"/no/copy/"}));
  fake_->with([](auto &state) { state.mounts = {{"/no/new", "/mnt"}}; });
  kept(keeper);
  EXPECT_EQ(directories(), (std::vector<std::string>{"/no/new/copy/"})) << "mounted anew";
}

TEST_F(RuleKeeperTest, a_rule_that_says_the_same_is_not_made_anew) {
  ASSERT_TRUE(connect()
                  .add_rule({rule_uuid(1), *make_workdir({{"/no/a"}, {"/no/a/x", "/no/a/tmp"}})})
                  .ok());
  RuleKeeper keeper = this->keeper({a_});
  EXPECT_EQ(kept(keeper), "=1 ");
}

}  // namespace
}  // namespace tarn
