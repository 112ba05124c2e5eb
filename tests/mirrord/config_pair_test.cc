// SPDX-License-Identifier: GPL-2.0
// The configuration of one source and one replica.
#include <gtest/gtest.h>

#include "mirrord/config/config.h"
#include "mirrord/config/names.h"

namespace tarn {
namespace {

class PairTest : public testing::Test {
 protected:
  static Config of(const std::string &source, const std::string &target,
                   const std::string &state = "") {
    const auto config = config_of_pair(source, target, state);
    EXPECT_TRUE(config.ok()) << config.error().text;
    return *config;
  }
  static std::string names(const Config &config) {
    const SourceConfig &source = config.sources.at(0);
    return source.name + "/" + source.targets.at(0).name;
  }
};

TEST_F(PairTest, is_a_configuration) {
  const Config config = of("/no/Data dir/", "/no/copy/../copy", "/no/state");
  ASSERT_EQ(config.sources.size(), 1u);
  EXPECT_EQ(config.sources[0].directory, "/no/Data dir");
  EXPECT_EQ(config.sources[0].targets.at(0).directory, "/no/copy");
  EXPECT_EQ(config.state_directory, "/no/state");
  EXPECT_EQ(config.control_socket, "/no/state/control.sock");
  EXPECT_EQ(of("/no/a", "/no/b").control_socket, default_control_socket());
  EXPECT_EQ(of("/no/a", "/no/b").state_directory, *default_state_directory());
  EXPECT_FALSE(config_of_pair("", "/no/b", "").ok());
  EXPECT_FALSE(config_of_pair("/no/a", "", "").ok());
}

TEST_F(PairTest, has_names_that_follow_from_the_paths) {
  const std::string name = names(of("/no/Data dir", "/no/copy"));
  EXPECT_TRUE(name.starts_with("datadir-")) << name;
  EXPECT_NE(name.find("/copy-"), std::string::npos) << name;
  EXPECT_EQ(names(of("/no/x/../Data dir", "/no/copy/")), name);
  EXPECT_NE(names(of("/other/Data dir", "/no/copy")), name);
  EXPECT_NE(names(of("/no/Data dir", "/other/copy")), name);
  const std::string strange = "/no/" + std::string(200, 'x') + "\xff\n\xc3\xa9";
  for (const std::string &path :
       {strange, std::string("/"), std::string("/no/.."), std::string("/no/-")}) {
    const Config config = of(path, path + "/copy");
    EXPECT_TRUE(good_config_name(config.sources[0].name)) << config.sources[0].name;
  }
}

}  // namespace
}  // namespace tarn
