// SPDX-License-Identifier: GPL-2.0
#include "client/control.h"

#include <gtest/gtest.h>

#include <chrono>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "client/workdir.h"
#include "module/os_public/Include/ox_ctl.h"
#include "module/os_public/Include/ox_msg.h"
#include "tests/replicate/fake_kernel.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;

/* The same module in two places. */
class InTarnd {
 public:
  ControlChannel connect() {
    return std::move(*ControlChannel::connect(tarnd_site(fake_.run_dir())));
  }
  auto with(auto f) { return fake_.with(f); }

 private:
  TemporaryDirectory directory_;
  FakeTarnd fake_{directory_ / "run"};
};

class InKernel {
 public:
  ControlChannel connect() {
    return ControlChannel(make_kernel_control(std::make_unique<FakeKernel>(state_)));
  }
  auto with(auto f) { return f(state_); }

 private:
  FakeKernelState state_;
};

template <class Place>
class ControlTest : public testing::Test {
 protected:
  Place place_;
  ControlChannel channel_ = place_.connect();
};

struct PlaceName {
  template <class Place>
  static std::string GetName(int) {
    return std::is_same_v<Place, InTarnd> ? "InTarnd" : "InKernel";
  }
};
using Places = testing::Types<InTarnd, InKernel>;
TYPED_TEST_SUITE(ControlTest, Places, PlaceName);

Rule rule(std::uint8_t n, const std::string &path = "/d") {
  return {rule_uuid(n), *make_workdir({{path}, {}})};
}

TYPED_TEST(ControlTest, rules_come_and_go) {
  EXPECT_EQ(*this->channel_.count_rules(), 0);
  EXPECT_TRUE(this->channel_.list_rules()->empty());
  ASSERT_TRUE(this->channel_.add_rule(rule(1, "/a")).ok());
  ASSERT_TRUE(this->channel_.add_rule(rule(2, "/b")).ok());
  EXPECT_EQ(*this->channel_.count_rules(), 2);
  EXPECT_TRUE(*this->channel_.rule_exists(rule_uuid(1)));
  EXPECT_FALSE(*this->channel_.rule_exists(rule_uuid(3)));
  EXPECT_EQ(this->channel_.get_rule(rule_uuid(2))->workdir, rule(2, "/b").workdir);
  const auto rules = this->channel_.list_rules();
  ASSERT_EQ(rules->size(), 2u);
  EXPECT_EQ((*rules)[0].uuid, rule_uuid(1));
  EXPECT_EQ((*rules)[1].workdir, rule(2, "/b").workdir);
  ASSERT_TRUE(this->channel_.delete_rule(rule_uuid(1)).ok());
  EXPECT_EQ(*this->channel_.count_rules(), 1);
  ASSERT_TRUE(this->channel_.flush_rules().ok());
  EXPECT_EQ(*this->channel_.count_rules(), 0);
}

TYPED_TEST(ControlTest, many_rules_come_in_pieces) {
  for (std::uint8_t n = 1; n <= 12; ++n) ASSERT_TRUE(this->channel_.add_rule(rule(n)).ok());
  this->place_.with([](auto &state) { state.count_is_wrong_once = true; });
  const auto rules = this->channel_.list_rules();
  ASSERT_TRUE(rules.ok()) << rules.error().text;
  ASSERT_EQ(rules->size(), 12u);
  EXPECT_EQ((*rules)[11].uuid, rule_uuid(12));
}

TYPED_TEST(ControlTest, rule_errors_say_what_to_do) {
  ASSERT_TRUE(this->channel_.add_rule(rule(1)).ok());
  EXPECT_EQ(this->channel_.add_rule(rule(1)).error().text,
            "rule 10111213-1415-1617-1819-1A1B1C1D1E1F: exists already: delete it first or choose "
            "another UUID");
  EXPECT_EQ(this->channel_.delete_rule(rule_uuid(2)).error().code, OX_ERR_NOENT);
  EXPECT_EQ(this->channel_.get_rule(rule_uuid(2)).error().code, OX_ERR_NOENT);
  const auto too_long = this->channel_.add_rule({rule_uuid(3), std::string(16000, 'x')});
  EXPECT_EQ(too_long.error().code, -E2BIG);
}

TYPED_TEST(ControlTest, every_result_of_the_module_has_its_text) {
  for (const int result : {-1000, -1001, -1002, -1003, -1004, -1005, -1007, -1, -12, -92, 17}) {
    this->place_.with([&](auto &state) { state.forced_result = result; });
    const auto flushed = this->channel_.flush_rules();
    ASSERT_FALSE(flushed.ok()) << result;
    EXPECT_EQ(flushed.error().code, result);
    EXPECT_TRUE(flushed.error().text.starts_with("rules: ")) << flushed.error().text;
    EXPECT_EQ(flushed.error().text.find("Unknown error"), std::string::npos)
        << flushed.error().text;
    EXPECT_FALSE(this->channel_.count_rules().ok());
  }
}

TYPED_TEST(ControlTest, directories_and_daemon_path) {
  ASSERT_TRUE(this->channel_.add_directory(rule_uuid(1), "/rep").ok());
  EXPECT_EQ(
      this->place_.with([](auto &state) { return std::string(state.directories[0].c_str() + 16); }),
      "/rep");
  EXPECT_EQ(this->channel_.add_directory(rule_uuid(1), "/rep").error().code, OX_ERR_EXIST);
  EXPECT_EQ(this->channel_.add_directory(rule_uuid(2), "rep").error().code, -EINVAL);
  EXPECT_TRUE(this->channel_.add_directory(rule_uuid(2), "/" + std::string(510, 'x')).ok());
  EXPECT_EQ(this->channel_.add_directory(rule_uuid(3), "/" + std::string(511, 'x')).error().code,
            -EINVAL);
  EXPECT_TRUE(this->channel_.delete_directory(rule_uuid(1)).ok());
  const auto gone = this->channel_.delete_directory(rule_uuid(1)).error();
  EXPECT_EQ(gone.code, OX_ERR_NOENT);
  EXPECT_NE(gone.text.find("'tarn dir add'"), std::string::npos) << gone.text;
  EXPECT_TRUE(this->channel_.flush_directories().ok());
  ASSERT_TRUE(this->channel_.set_daemon_path("/usr/sbin/mirrord").ok());
  EXPECT_EQ(this->place_.with([](auto &state) { return state.daemon_path; }), "/usr/sbin/mirrord");
  EXPECT_EQ(this->channel_.set_daemon_path("mirrord").error().code, -EINVAL);
}

TYPED_TEST(ControlTest, mounts_with_any_bytes) {
  const std::string lower = "/lo w\\er\n\xff";
  ASSERT_TRUE(this->channel_.mount(lower, "/mnt a").ok());
  const auto mounts = this->channel_.mounts();
  ASSERT_EQ(mounts->size(), 1u);
  EXPECT_EQ((*mounts)[0].lower, lower);
  EXPECT_EQ((*mounts)[0].mountpoint, "/mnt a");
  EXPECT_TRUE((*mounts)[0].options.starts_with("rw"));
  EXPECT_EQ(this->channel_.mount("/x", "/mnt a").error().code, -EBUSY);
  ASSERT_TRUE(this->channel_.umount("/mnt a", Umount::kIfIdle).ok());
  EXPECT_EQ(this->channel_.umount("/mnt a", Umount::kLazily).error().code, -EINVAL);
}

TYPED_TEST(ControlTest, unknown_option) {
  EXPECT_EQ(*this->channel_.set_option(178, {}), OX_ERR_REQUEST);
}

class TarndControlTest : public testing::Test {
 protected:
  TemporaryDirectory directory_;
  FakeTarnd fake_{directory_ / "run"};
  ControlChannel channel_{std::move(*ControlChannel::connect(tarnd_site(fake_.run_dir())))};
};

TEST_F(TarndControlTest, words_of_tarnd_are_passed_on) {
  ASSERT_TRUE(channel_.mount("/a", "/mnt a").ok());
  EXPECT_EQ(channel_.mounts()->front().options, "rw");
  EXPECT_EQ(channel_.mount("/x", "/mnt a").error().text, "something is mounted at /mnt a");
}

TEST_F(TarndControlTest, the_time_for_names_is_passed_on) {
  ASSERT_TRUE(channel_.mount("/a", "/mnt").ok());
  EXPECT_EQ(fake_.with([](auto &state) { return state.cache_ms; }), OX_CTL_CACHE_DEFAULT);
  ASSERT_TRUE(channel_.mount("/a", "/other", std::chrono::milliseconds(0)).ok());
  EXPECT_EQ(fake_.with([](auto &state) { return state.cache_ms; }), 0);
}

TEST_F(TarndControlTest, many_mounts_come_in_pieces) {
  const std::string deep(4000, 'x');
  for (int n = 0; n < 40; ++n)
    ASSERT_TRUE(channel_.mount("/a", fmt::format("/{}/{}", deep, n)).ok());
  const auto mounts = channel_.mounts();
  ASSERT_TRUE(mounts.ok()) << mounts.error().text;
  ASSERT_EQ(mounts->size(), 40u);
  EXPECT_EQ(mounts->back().mountpoint, "/" + deep + "/39");
}

TEST_F(TarndControlTest, log) {
  fake_.with([](auto &state) { state.log = {"one", "", "three"}; });
  const auto part = channel_.log(1, std::chrono::milliseconds(0));
  ASSERT_EQ(part->lines.size(), 2u);
  EXPECT_EQ(part->lines[0].number, 1u);
  EXPECT_EQ(part->lines[0].text, "");
  EXPECT_EQ(part->lines[0].us, kTime + 1);
  EXPECT_EQ(part->lines[1].text, "three");
  EXPECT_EQ(part->lines[1].level, 2u);
  EXPECT_EQ(part->next, 3u);
}

TEST_F(TarndControlTest, a_request_that_is_too_long) {
  EXPECT_EQ(channel_.set_option(177, std::vector<std::byte>(70000)).error().code, -E2BIG);
}

class KernelControlTest : public testing::Test {
 protected:
  FakeKernelState kernel_;
  ControlChannel channel_{make_kernel_control(std::make_unique<FakeKernel>(kernel_))};
};

TEST_F(KernelControlTest, only_mounts_of_tarn_are_shown_with_their_lower_directories) {
  kernel_.other_mounts =
      "tarn /mnt/tarn ext3 rw,dir=/x 0 0\n"
      "lo\\040wer /mnt/a tarn rw,noatime,dir=/data/lo wer 0 0\n"
      "/b /mnt/b\\011 tarn rw,dir=/b 0 0\nrubbish\n\n/c /mnt/c tarn";
  const auto mounts = channel_.mounts();
  ASSERT_EQ(mounts->size(), 3u);
  EXPECT_EQ((*mounts)[0].lower, "/data/lo wer");
  EXPECT_EQ((*mounts)[0].options, "rw,noatime,dir=/data/lo wer");
  EXPECT_EQ((*mounts)[1].lower, "/b");
  EXPECT_EQ((*mounts)[1].mountpoint, "/mnt/b\t");
  EXPECT_EQ((*mounts)[2].lower, "/c");
}

TEST_F(KernelControlTest, refused_mounts_say_what_to_do) {
  const auto text = [&](int result, auto act) {
    kernel_.forced_mount_result = result;
    const Result<void> done = act();
    EXPECT_EQ(done.error().code, result);
    return done.error().text;
  };
  const auto mount = [&] { return channel_.mount("/lo wer", "/mnt"); };
  EXPECT_EQ(text(-EPERM, mount), "cannot mount \"/lo wer\" on /mnt: only root may mount");
  EXPECT_EQ(text(-ENODEV, mount),
            "cannot mount \"/lo wer\" on /mnt: the module is not loaded: load tarn.ko");
  EXPECT_EQ(text(-ENOMEM, mount), "cannot mount \"/lo wer\" on /mnt: Cannot allocate memory");
  kernel_.forced_mount_result = 0;
  ASSERT_TRUE(mount().ok());
  EXPECT_EQ(mount().error().text, "/mnt is mounted already");
  const auto umount = [&] { return channel_.umount("/mnt", Umount::kIfIdle); };
  EXPECT_NE(text(-EBUSY, umount).find("--lazy"), std::string::npos);
  EXPECT_EQ(text(-EPERM, umount), "cannot unmount /mnt: only root may unmount");
  EXPECT_EQ(channel_.umount("/proc", Umount::kIfIdle).error().text, "/proc is not a mount of tarn");
}

TEST_F(KernelControlTest, a_time_for_names_is_refused) {
  const auto mounted = channel_.mount("/lower", "/mnt", std::chrono::milliseconds(1000));
  EXPECT_EQ(mounted.error().code, -EOPNOTSUPP);
  EXPECT_NE(mounted.error().text.find("--cache"), std::string::npos);
  EXPECT_TRUE(channel_.mounts()->empty());
}

TEST_F(KernelControlTest, an_answer_longer_than_the_buffer_is_not_believed) {
  class Liar : public FakeKernel {
   public:
    using FakeKernel::FakeKernel;
    int get_option(int, void *, unsigned *length) override {
      *length += 1;
      return 0;
    }
  };
  ControlChannel channel(make_kernel_control(std::make_unique<Liar>(kernel_)));
  EXPECT_EQ(channel.count_rules().error().code, -EPROTO);
}

TEST_F(KernelControlTest, the_log_is_numbered_across_readings) {
  const auto texts = [&](std::uint64_t first) {
    const auto part = channel_.log(first, std::chrono::milliseconds(0));
    std::string all;
    for (const LogLine &line : part->lines)
      all += std::to_string(line.number) + "<" + std::to_string(line.level) + ">" + line.text + " ";
    return all + "next " + std::to_string(part->next);
  };
  EXPECT_EQ(texts(0), "next 0");
  kernel_.log = "<4>one\n<3>two\n<6>th";
  EXPECT_EQ(texts(0), "0<4>one 1<3>two next 2") << "the third has no end yet";
  kernel_.log = "<4>one\n<3>two\n<6>three\n";
  EXPECT_EQ(texts(2), "2<6>three next 3");
  kernel_.log = "wo\n<6>three\n<30>four\nno head\n";
  EXPECT_EQ(texts(3), "3<6>four 4<4>no head next 5") << "the first line is cut, one is gone";
  EXPECT_EQ(texts(0), "2<6>three 3<6>four 4<4>no head next 5");
  kernel_.log = "<4>after a flood\n";
  EXPECT_EQ(texts(5), "6<4>after a flood next 7") << "a number is skipped";
}

TEST_F(KernelControlTest, waiting_for_the_log_ends_with_a_line) {
  kernel_.log = "<4>one\n";
  const auto part = channel_.log(0, std::chrono::hours(1));
  EXPECT_EQ(part->lines.size(), 1u);
  EXPECT_EQ(part->lines[0].us, std::nullopt);
}

TEST(Site, the_kernels_list_of_file_systems) {
  EXPECT_TRUE(lists_tarn("nodev\tproc\nnodev\ttarn\n\text3\n"));
  EXPECT_TRUE(lists_tarn("\ttarn"));
  EXPECT_FALSE(lists_tarn("nodev\tproc\nnodev\tfuse.tarn\nnodev\ttarnfs\n\text3\n"));
  EXPECT_FALSE(lists_tarn(""));
}

TEST(Site, a_run_directory_that_is_named_means_tarnd) {
  const char *old = std::getenv("TARN_RUN_DIR");
  const std::string saved = old ? old : "";
  setenv("TARN_RUN_DIR", "/some/where", 1);
  EXPECT_FALSE(find_site().in_kernel());
  EXPECT_EQ(find_site().run_dir, "/some/where");
  if (old)
    setenv("TARN_RUN_DIR", saved.c_str(), 1);
  else
    unsetenv("TARN_RUN_DIR");
}

TEST(Connect, nobody_there) {
  TemporaryDirectory directory;
  for (const std::string &run_dir : {directory / "absent", directory.path()}) {
    const auto channel = ControlChannel::connect(tarnd_site(run_dir));
    ASSERT_FALSE(channel.ok());
    EXPECT_TRUE(no_tarnd_there(channel.error()));
    EXPECT_TRUE(channel.error().text.starts_with("no tarnd runs in /")) << channel.error().text;
  }
}

TEST(Connect, a_long_run_directory) {
  TemporaryDirectory directory;
  const FakeTarnd fake(directory / std::string(120, 'r'));
  EXPECT_TRUE(ControlChannel::connect(tarnd_site(fake.run_dir())).ok());
}

TEST(Connect, run_directory_of_the_environment) {
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
