// SPDX-License-Identifier: GPL-2.0
// What a configuration says, and what is said of a wrong one, to the letter.
#include "mirrord/config/config.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include <fmt/format.h>

#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class ConfigTest : public testing::Test {
 protected:
  ConfigTest() {
    setenv("TARN_STATE_DIR", "/no/state", 1);
    setenv("TARN_RUN_DIR", "/no/run", 1);
  }
  ~ConfigTest() override {
    unsetenv("TARN_STATE_DIR");
    unsetenv("TARN_RUN_DIR");
  }

  ReadConfig read(const std::string &text) {
    std::ofstream(file_, std::ios::binary | std::ios::trunc) << text;
    return read_config_with_problems(file_);
  }
  Config good(const std::string &text) {
    ReadConfig read = this->read(text);
    for (const Error &problem : read.problems) ADD_FAILURE() << problem.text;
    return std::move(read.config);
  }
  /* All problems, a line each, the file as F. */
  std::string problems(const std::string &text) {
    std::string all;
    for (const Error &problem : read(text).problems) {
      EXPECT_EQ(problem.code, -EINVAL);
      EXPECT_EQ(problem.text.find('\n'), std::string::npos) << problem.text;
      EXPECT_TRUE(problem.text.starts_with(file_)) << problem.text;
      all += "F" + problem.text.substr(std::min(file_.size(), problem.text.size())) + "\n";
    }
    const auto first = read_config(file_);
    EXPECT_EQ(first.ok(), all.empty());
    if (!first) {
      EXPECT_EQ(all.find("F" + first.error().text.substr(file_.size()) + "\n"), 0u);
    }
    return all;
  }

  TemporaryDirectory dir_;
  const std::string file_ = dir_ / "m.toml";
};

constexpr char kSmall[] =
    "[[source]]\n"
    "name = \"data\"\n"
    "directory = \"/no/data\"\n"
    "[[source.target]]\n"
    "name = \"backup\"\n"
    "directory = \"/no/backup\"\n";

TEST_F(ConfigTest, the_smallest_has_defaults) {
  const Config config = good(kSmall);
  EXPECT_EQ(config.file, file_);
  EXPECT_EQ(config.state_directory, "/no/state/mirrord");
  EXPECT_EQ(config.control_socket, "/no/run/mirrord.sock");
  EXPECT_EQ(config.metrics_file, "");
  ASSERT_EQ(config.sources.size(), 1u);
  const SourceConfig &source = config.sources[0];
  EXPECT_EQ(source.name, "data");
  EXPECT_EQ(source.directory, "/no/data");
  EXPECT_TRUE(source.exclude.empty());
  EXPECT_EQ(source.log_limit, 1u << 30);
  EXPECT_EQ(source.walk_files_per_second, 0u);
  EXPECT_EQ(source.copy_bytes_per_second, 0u);
  EXPECT_EQ(source.line, 1);
  ASSERT_EQ(source.targets.size(), 1u);
  EXPECT_EQ(source.targets[0].name, "backup");
  EXPECT_EQ(source.targets[0].directory, "/no/backup");
  EXPECT_EQ(source.targets[0].line, 4);
}

TEST_F(ConfigTest, every_key_is_read) {
  const Config config = good(
      "state = '/no/own/'\n"
      "[log]\nlimit = \"2 GiB\"\n"
      "[metrics]\nfile = '/no/m.prom'\n"
      "[control]\nsocket = '/no/s.sock'\n"
      "[[source]]\nname = 'a.b_c-9'\ndirectory = '/no/./x/../data//'\n"
      "exclude = ['tmp', '/no/data/cache/pages/', \"with blank\",]\n"
      "log-limit = '64MiB'\ncopy-files-per-second = 1\ncopy-bytes-per-second = 4096\n"
      "[[source.target]]\nname = 'one'\ndirectory = '/no/one'\n"
      "[[source.target]]\nname = 'two'\ndirectory = '/no/two'\n"
      "[[source]]\nname = '9'\ndirectory = '/no/other'\n"
      "target = [{name = 'one', directory = '/no/three'}]\n");
  EXPECT_EQ(config.state_directory, "/no/own");
  EXPECT_EQ(config.metrics_file, "/no/m.prom");
  EXPECT_EQ(config.control_socket, "/no/s.sock");
  ASSERT_EQ(config.sources.size(), 2u);
  const SourceConfig &first = config.sources[0], &second = config.sources[1];
  EXPECT_EQ(first.name, "a.b_c-9");
  EXPECT_EQ(first.directory, "/no/data");
  EXPECT_EQ(first.exclude, (std::vector<std::string>{"/no/data/tmp", "/no/data/cache/pages",
                                                     "/no/data/with blank"}));
  EXPECT_EQ(first.log_limit, 64u << 20);
  EXPECT_EQ(first.walk_files_per_second, 1u);
  EXPECT_EQ(first.copy_bytes_per_second, 4096u);
  ASSERT_EQ(first.targets.size(), 2u);
  EXPECT_EQ(first.targets[1].directory, "/no/two");
  EXPECT_EQ(second.log_limit, std::uint64_t{2} << 30) << "the limit for all";
  EXPECT_EQ(second.targets[0].directory, "/no/three");
}

constexpr char kSourceOfStream[] =
    "[[source]]\nname = \"data\"\ndirectory = \"/no/data\"\n"
    "[[source.target]]\nkind = \"nats\"\nname = \"others\"\n";

TEST_F(ConfigTest, a_stream_is_a_target) {
  const Config config = good(std::string(kSourceOfStream) +
                             "servers = [\"tls://a.example:4222\", \"nats://b.example:4222\"]\n"
                             "stream = \"Data_1\"\n"
                             "credentials = \"/no/user.creds\"\n"
                             "ca = \"/no/ca.pem\"\n"
                             "certificate = \"/no/certificate.pem\"\n"
                             "key = \"/no/key.pem\"\n"
                             "replicas = 3\n"
                             "max-bytes = \"10 GiB\"\n"
                             "compression = \"zstd\"\n");
  const SourceConfig &source = config.sources.at(0);
  EXPECT_TRUE(source.targets.empty());
  const StreamTargetConfig &target = source.streams.at(0);
  EXPECT_EQ(target.name, "others");
  EXPECT_EQ(target.line, 4);
  EXPECT_EQ(target.stream.servers,
            (std::vector<std::string>{"tls://a.example:4222", "nats://b.example:4222"}));
  EXPECT_EQ(target.stream.stream, "Data_1");
  EXPECT_EQ(target.stream.credentials, "/no/user.creds");
  EXPECT_EQ(target.stream.ca, "/no/ca.pem");
  EXPECT_EQ(target.stream.certificate, "/no/certificate.pem");
  EXPECT_EQ(target.stream.key, "/no/key.pem");
  EXPECT_EQ(target.stream.replicas, 3u);
  EXPECT_EQ(target.stream.max_bytes, std::uint64_t{10} << 30);
  EXPECT_TRUE(target.stream.compress);
  EXPECT_EQ(config_notes(config).size(), 4u);  // none of the files is there
}

TEST_F(ConfigTest, what_is_wrong_with_a_stream_is_said_with_its_line) {
  const auto wrong = [this](const std::string &lines) {
    return problems(std::string(kSourceOfStream) + lines);
  };
  const std::string here = "servers = [\"nats://localhost:4222\"]\n";
  const std::string name = "stream = \"s\"\n";
  const std::string form = "\"nats://HOST:PORT\" or \"tls://HOST:PORT\", at least one\n";
  EXPECT_EQ(wrong(here + name), "");
  EXPECT_EQ(wrong(name), "F:4: [[source.target]] has no servers; expected an array of " + form);
  EXPECT_EQ(wrong("servers = []\n" + name), "F:7: servers is empty; expected an array of " + form);
  for (const std::string server :
       {"localhost:4222", "nats://localhost", "nats://a:b@localhost:4222", "nats://localhost:0",
        "nats://localhost:65536", "tls://:4222", "nats://a/b:1"})
    EXPECT_EQ(wrong("servers = [\"" + server + "\"]\n" + name),
              "F:7: servers has " + server + "; expected an array of " + form);
  EXPECT_EQ(wrong(here + "stream = \"a.b\"\n"),
            "F:8: stream a.b is no name of a stream; expected at most 64 of A-Z, a-z, 0-9, '_' and "
            "'-'\n");
  EXPECT_EQ(wrong(here + name + "ca = \"/no/ca\"\n"),
            "F:4: ca, certificate and key belong together; expected all three\n");
  EXPECT_EQ(wrong("servers = [\"nats://a.example:4222\"]\n" + name),
            "F:4: servers on other hosts are reached with TLS only; expected ca, certificate and "
            "key\n");
  EXPECT_EQ(wrong(here + name + "replicas = 6\n"),
            "F:9: replicas is 6; expected a whole number from 1 to 5\n");
  EXPECT_EQ(wrong(here + name + "max-bytes = \"1 MiB\"\n"),
            "F:9: max-bytes \"1 MiB\" is too small; expected at least 64 MiB\n");
  EXPECT_EQ(wrong(here + name + "compression = \"gzip\"\n"),
            "F:9: compression gzip is unknown; expected \"none\" or \"zstd\"\n");
  EXPECT_EQ(problems("[[source]]\nname = \"data\"\ndirectory = \"/no/data\"\n[[source.target]]\n"
                     "kind = \"tape\"\nname = \"a\"\ndirectory = \"/no/b\"\n"),
            "F:5: kind tape is unknown; expected \"directory\" or \"nats\"\n");
}

TEST_F(ConfigTest, a_replica_has_no_sources) {
  const std::string replica =
      "[replica]\nname = \"one\"\ndirectory = \"/no/copy\"\n"
      "servers = [\"nats://127.0.0.1:4222\"]\nstream = \"data\"\n";
  const Config small = good(replica);
  EXPECT_TRUE(small.sources.empty());
  ASSERT_TRUE(small.replica);
  EXPECT_EQ(small.replica->target.name, "one");
  EXPECT_EQ(small.replica->target.directory, "/no/copy");
  EXPECT_EQ(small.replica->stream.stream, "data");
  EXPECT_EQ(small.state_directory, kReplicaStateDirectory);
  EXPECT_EQ(small.control_socket, control_socket_in(kReplicaStateDirectory));
  EXPECT_EQ(config_notes(small).size(), 1u);  // the directory is not there
  const Config whole = good("state = \"/no/own\"\nlog.limit = \"64 MiB\"\n" + replica +
                            "copy-bytes-per-second = \"1 MiB\"\n");
  EXPECT_EQ(whole.state_directory, "/no/own");
  EXPECT_EQ(whole.control_socket, "/no/own/control.sock");
  EXPECT_EQ(whole.replica->log_limit, std::uint64_t{64} << 20);
  EXPECT_EQ(whole.replica->copy_bytes_per_second, std::uint64_t{1} << 20);
  EXPECT_NE(problems(replica + "max-bytes = \"10 GiB\"\n").find("has no key max-bytes"),
            std::string::npos);
  EXPECT_NE(problems(replica + kSmall).find("F:6: the file has no key source"), std::string::npos);
  EXPECT_NE(problems("[replica]\n").find("name"), std::string::npos);
}

TEST_F(ConfigTest, sizes) {
  const auto limit = [&](const std::string &value) {
    const ReadConfig read = this->read("[log]\nlimit = " + value + "\n" + kSmall);
    return read.problems.empty() ? std::to_string(read.config.sources[0].log_limit)
                                 : read.problems[0].text.substr(file_.size());
  };
  EXPECT_EQ(limit("67108864"), "67108864");
  EXPECT_EQ(limit("'67108864'"), "67108864");
  EXPECT_EQ(limit("'65536KiB'"), "67108864");
  EXPECT_EQ(limit("'64 MiB'"), "67108864");
  EXPECT_EQ(limit("'3 TiB'"), "3298534883328");
  EXPECT_EQ(limit("'8388607 TiB'"), "9223370937343148032");
  const std::string no_size =
      "; expected bytes, or a whole number of KiB, MiB, GiB or TiB, for example \"512 MiB\"";
  for (const std::string bad :
       {"1 GB", "1.5 GiB", "GiB", "-1 GiB", "1  GiB", "1 ", " 1 GiB", "1GiB ", "0x1 GiB", "1 gib",
        "8388608 TiB", "99999999999999999999"}) {
    const std::string shown = bad.find(' ') == bad.npos ? bad : '"' + bad + '"';
    EXPECT_EQ(limit("'" + bad + "'"), ":2: limit " + shown + " is no size" + no_size);
  }
  EXPECT_EQ(limit("''"), ":2: limit \"\" is no size" + no_size);
  EXPECT_EQ(limit("-1"), ":2: limit -1 is no size" + no_size);
  EXPECT_EQ(limit("1.5"), ":2: limit is a number with a fraction" + no_size);
  EXPECT_EQ(limit("67108863"), ":2: limit 67108863 is too small; expected at least 64 MiB");
}

TEST_F(ConfigTest, a_wrong_value_is_said_with_its_line) {
  const std::string name_form =
      "; expected at most 64 of a-z, 0-9, '.', '_' and '-', the first a letter or a digit\n";
  const auto source = [](const std::string &lines) {
    return "[[source]]\nname = 'data'\ndirectory = '/no/data'\n" + lines +
           "[[source.target]]\nname = 'b'\ndirectory = '/no/b'\n";
  };
  const auto named = [](const std::string &name) {
    return "[[source]]\nname = " + name +
           "\ndirectory = '/no/data'\n[[source.target]]\nname = 'b'\ndirectory = '/no/b'\n";
  };
  const struct {
    std::string text, expected;
  } kCases[] = {
      {"", "F:1: the file has no source; expected at least one table [[source]]\n"},
      {"source = []\n", "F:1: the file has no source; expected at least one table [[source]]\n"},
      {"source = 'data'\n",
       "F:1: source is a string; expected at least one table [[source]], in two brackets\n"},
      {"[source]\nname = 'x'\n",
       "F:1: source is a table; expected at least one table [[source]], in two brackets\n"},
      {"source = [1, {}]\n",
       "F:1: source is an integer; expected at least one table [[source]]\n"
       "F:1: [[source]] has no name" +
           name_form +
           "F:1: [[source]] has no directory; expected the absolute path of a directory\n"
           "F:1: [[source]] has no target; expected at least one table [[source.target]]\n"},
      {std::string("state = 1\n") + kSmall,
       "F:1: state is an integer; expected the absolute path of the service's own directory\n"},
      {std::string("state = ''\n") + kSmall,
       "F:1: state is empty; expected the absolute path of the service's own directory\n"},
      {std::string("state = 'var/x'\n") + kSmall,
       "F:1: state var/x is not absolute; expected the absolute path of the service's own "
       "directory\n"},
      {std::string("state = \"/a\\u0000b\"\n") + kSmall,
       "F:1: state holds a NUL byte; expected the absolute path of the service's own directory\n"},
      {std::string("log = '1 GiB'\n") + kSmall, "F:1: log is a string; expected a table [log]\n"},
      {std::string("[log]\nlimits = 1\n") + kSmall,
       "F:2: [log] has no key limits; expected one of limit\n"},
      {std::string("[metrics]\nfile = true\n") + kSmall,
       "F:2: file is true or false; expected the absolute path of a file\n"},
      {std::string("[control]\n\nsocket = 1979-05-27\n") + kSmall,
       "F:3: socket is a date or a time; expected the absolute path of a socket\n"},
      {std::string("[sources]\n") + kSmall,
       "F:1: the file has no key sources; expected one of state, log, metrics, control, source\n"},
      {std::string("\"bad\\nkey\" = 1\n") + kSmall,
       "F:1: the file has no key \"bad\\nkey\"; expected one of state, log, metrics, control, "
       "source\n"},
      {source("excludes = ['tmp']\n"),
       "F:4: [[source]] has no key excludes; expected one of name, directory, exclude, log-limit, "
       "copy-files-per-second, copy-bytes-per-second, target\n"},
      {source("") + "mode = 1\n",
       "F:7: [[source.target]] has no key mode; expected one of kind, name, directory\n"},
      {named("''"), "F:2: name is empty" + name_form},
      {named("'Data'"), "F:2: name Data is no name" + name_form},
      {named("'-x'"), "F:2: name -x is no name" + name_form},
      {named("'..'"), "F:2: name .. is no name" + name_form},
      {named("'a/b'"), "F:2: name a/b is no name" + name_form},
      {named("\"a\\nb\""), "F:2: name \"a\\nb\" is no name" + name_form},
      {named("'" + std::string(65, 'x') + "'"),
       "F:2: name " + std::string(65, 'x') + " is no name" + name_form},
      {named("7"), "F:2: name is an integer" + name_form},
      {source("copy-files-per-second = 0\n"),
       "F:4: copy-files-per-second is 0; expected a whole number from 1 to 1000000000\n"},
      {source("copy-files-per-second = 1000000001\n"),
       "F:4: copy-files-per-second is 1000000001; expected a whole number from 1 to 1000000000\n"},
      {source("copy-files-per-second = '2000'\n"),
       "F:4: copy-files-per-second is a string; expected a whole number from 1 to 1000000000\n"},
      {source("copy-bytes-per-second = 0\n"),
       "F:4: copy-bytes-per-second 0 is too small; expected at least 4 KiB\n"},
      {source("log-limit = '1 MiB'\n"),
       "F:4: log-limit \"1 MiB\" is too small; expected at least 64 MiB\n"},
      {source("exclude = 'tmp'\n"),
       "F:4: exclude is a string; expected an array of paths below /no/data\n"},
      {source("exclude = ['a',\n 1]\n"),
       "F:5: exclude is an integer; expected a path below /no/data without '.' and '..'\n"},
      {source("exclude = ['a',\n '', \"\\u0000\"]\n"),
       "F:5: exclude is empty; expected a path below /no/data without '.' and '..'\n"
       "F:5: exclude holds a NUL byte; expected a path below /no/data without '.' and '..'\n"},
      {source("exclude = ['a',\n 'b',\n 'a/']\n"),
       "F:6: exclude a/ is the same as that of line 4; expected it once\n"},
  };
  for (const auto &[text, expected] : kCases) EXPECT_EQ(problems(text), expected) << text;
  for (const std::string bad :
       {"../x", "a/../b", ".", "./a", "/no/data", "/no/data/", "/no/database", "/", "/etc"})
    EXPECT_EQ(problems(source("exclude = ['" + bad + "']\n")),
              "F:4: exclude " + bad +
                  " does not lie there; expected a path below /no/data without '.' and '..'\n");
}

TEST_F(ConfigTest, what_is_given_twice) {
  EXPECT_EQ(problems(std::string(kSmall) + kSmall),
            "F:8: name data is taken by line 2; expected another one\n");
  EXPECT_EQ(
      problems(std::string(kSmall) + "[[source.target]]\nname = 'backup'\ndirectory = '/c'\n"),
      "F:8: name backup is taken by line 5; expected another one\n");
  const std::string twice = problems(std::string("state = '/a'\nstate = '/b'\n") + kSmall);
  EXPECT_TRUE(twice.starts_with("F:2: ")) << twice;
  EXPECT_NE(twice.find("state"), std::string::npos) << twice;
}

TEST_F(ConfigTest, several_problems_are_all_said_in_order) {
  EXPECT_EQ(problems("[[source]]\ndirectory = 'x'\n[[source.target]]\nname = 'X'\n"
                     "directory = ''\n[log]\nlimit = 1\n"),
            "F:1: [[source]] has no name; expected at most 64 of a-z, 0-9, '.', '_' and '-', the "
            "first a letter or a digit\n"
            "F:2: directory x is not absolute; expected the absolute path of a directory\n"
            "F:4: name X is no name; expected at most 64 of a-z, 0-9, '.', '_' and '-', the first "
            "a letter or a digit\n"
            "F:5: directory is empty; expected the absolute path of a directory\n"
            "F:7: limit 1 is too small; expected at least 64 MiB\n");
}

TEST_F(ConfigTest, what_is_no_toml) {
  const struct {
    const char *text;
    int line;
  } kCases[] = {{"state = \n", 1},
                {"state = '/a'\n[[source]\n", 2},
                {"\n\nx", 3},
                {"a = \"\\q\"\n", 1},
                {"a = '\xff\xfe'\n", 1},
                {"a = 1\n\x01\n", 2},
                {"a = 1\nn\u00e4me = 1\n", 2},
                {"a = [\u00e4]\n", 1},
                {"a = [[[[[[[[[[1]]]]]]]]]]", 1},
                {"a = 99999999999999999999\n", 1}};
  for (const auto &[text, line] : kCases) {
    const std::string said = problems(text);
    EXPECT_TRUE(said.starts_with(fmt::format("F:{}: ", line))) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  }
  EXPECT_EQ(problems("a = 1\n" + std::string(201, '.') + "\n"),
            "F:2: the line has more than 200 dots; expected fewer: an array may take several "
            "lines\n");
}

TEST_F(ConfigTest, what_is_no_file) {
  EXPECT_EQ(
      read_config(dir_ / "none").error().text,
      fmt::format("cannot read the configuration {}: No such file or directory", dir_ / "none"));
  EXPECT_EQ(read_config(dir_.path()).error().text,
            fmt::format("cannot read the configuration {}: it is no regular file; expected a TOML "
                        "text",
                        dir_.path()));
  ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(read_config(dir_ / "fifo").error().code, -EINVAL);
  std::ofstream(file_) << std::string((1 << 20) + 1, '\n');
  EXPECT_EQ(read_config(file_).error().text,
            fmt::format("cannot read the configuration {}: it has 1048577 bytes; expected at most "
                        "1048576",
                        file_));
}

TEST_F(ConfigTest, paths_are_the_ones_that_records_carry) {
  fs::create_directories(dir_ / "real/sub");
  fs::create_directory_symlink("real", dir_ / "link");
  fs::create_directory_symlink("/etc", dir_ / "real/out");
  fs::create_directory_symlink("sub", dir_ / "real/in");
  const auto source = [&](const std::string &exclude) {
    return fmt::format(
        "[[source]]\nname = 'data'\ndirectory = '{0}/link/.'\nexclude = {1}\n[[source.target]]\n"
        "name = 'b'\ndirectory = '{0}/link/../copy'\n",
        dir_.path(), exclude);
  };
  const std::string real = dir_ / "real";
  const Config config = good(source("['out', 'in', 'in/deep', '" + dir_.path() + "/link/sub']"));
  EXPECT_EQ(config.sources[0].directory, real);
  EXPECT_EQ(config.sources[0].targets[0].directory, dir_ / "copy");
  EXPECT_EQ(
      config.sources[0].exclude,
      (std::vector<std::string>{real + "/out", real + "/in", real + "/sub/deep", real + "/sub"}))
      << "the name of a link, and what lies behind one";
  EXPECT_EQ(problems(source("['out/passwd']")),
            "F:4: exclude out/passwd does not lie there; expected a path below " + real +
                " without '.' and '..'\n");
}

TEST_F(ConfigTest, a_target_that_cannot_be_looked_up_may_come) {
  fs::create_symlink("loop", dir_ / "loop");
  const auto text = [&](const std::string &source, const std::string &target) {
    return fmt::format(
        "[[source]]\nname = 'data'\ndirectory = '{}'\n[[source.target]]\nname = 'b'\n"
        "directory = '{}'\n",
        source, target);
  };
  EXPECT_EQ(good(text("/no/data", dir_ / "loop/./x//")).sources[0].targets[0].directory,
            dir_ / "loop/x");
  EXPECT_EQ(problems(text(dir_ / "loop/x", "/no/b")),
            fmt::format("F:3: directory: cannot resolve the path {}: Too many levels of symbolic "
                        "links; expected the absolute path of a directory\n",
                        dir_ / "loop/x"));
}

TEST_F(ConfigTest, excludes_that_do_not_fit_a_rule) {
  std::string list;
  for (int n = 100; n < 200; ++n) list += fmt::format("'{}{}',\n", std::string(100, 'x'), n);
  const auto text = [&](const std::string &more) {
    return "[[source]]\nname = 'data'\ndirectory = '/no/data'\nexclude = [\n" + list + more +
           "]\n[[source.target]]\nname = 'b'\ndirectory = '/no/b'\n";
  };
  EXPECT_EQ(good(text("")).sources[0].exclude.size(), 100u);
  EXPECT_EQ(problems(text("'" + std::string(900, 'y') + "'")),
            "F:4: the 101 excludes do not fit the rule of /no/data, which has room for their paths "
            "in Base64, 15999 bytes; expected fewer or shorter ones\n");
  EXPECT_NE(problems(text("'" + std::string(4096, 'y') + "'")).find("longer than 4095 bytes"),
            std::string::npos);
}

TEST_F(ConfigTest, the_sample_is_whole_and_shows_every_key) {
  const auto config = read_config(SAMPLE_CONFIG);
  ASSERT_TRUE(config.ok()) << config.error().text;
  ASSERT_EQ(config->sources.size(), 1u);
  ASSERT_EQ(config->sources[0].targets.size(), 1u);
  std::ifstream in(SAMPLE_CONFIG);
  std::string text{std::istreambuf_iterator<char>(in), {}}, all;
  // What is a key behind "#" becomes one: then every key is there, and each is good.
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    if (line.starts_with('#') && !line.starts_with("# ")) line.remove_prefix(1);
    all += std::string(line) + "\n";
  }
  const Config whole = good(all);
  EXPECT_EQ(whole.state_directory, "/var/lib/tarn/mirrord");
  EXPECT_EQ(whole.control_socket, "/run/tarn/mirrord.sock");
  EXPECT_NE(whole.metrics_file, "");
  ASSERT_EQ(whole.sources.size(), 1u);
  EXPECT_FALSE(whole.sources[0].exclude.empty());
  EXPECT_NE(whole.sources[0].log_limit, SourceConfig().log_limit);
  EXPECT_NE(whole.sources[0].walk_files_per_second, 0u);
  EXPECT_NE(whole.sources[0].copy_bytes_per_second, 0u);
  ASSERT_EQ(whole.sources[0].streams.size(), 1u);
  EXPECT_TRUE(whole.sources[0].streams[0].stream.compress);
  EXPECT_NE(whole.sources[0].streams[0].stream.ca, "");
}

TEST_F(ConfigTest, damaged_texts_end_in_lines_and_never_in_a_crash) {
  const std::string whole =
      "state = \"/no/own\" # comment\n[log]\nlimit = \"2 GiB\"\n" + std::string(kSmall) +
      "[[source]]\nname = '''x'''\nexclude = [\n'a', \"b\\u00e4\"]\ndirectory = '/no/2'\n"
      "copy-files-per-second = 0x10\ntarget = [{name = 't', directory = '/no/t'}]\n";
  ASSERT_EQ(problems(whole), "");
  for (std::size_t cut = 0; cut < whole.size(); ++cut) problems(whole.substr(0, cut));
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    std::string text = whole;
    for (unsigned n = 1 + random() % 4; n > 0; --n) {
      const std::size_t at = random() % text.size();
      if (random() % 2)
        text[at] = static_cast<char>(random());
      else
        text.insert(at, text.substr(random() % text.size(), random() % 20));
    }
    problems(text);
  }
}

TEST_F(ConfigTest, nesting_does_not_exhaust_the_stack) {
  std::string text;
  for (int line = 0; line < 2000; ++line) {
    text += "[";
    for (int n = 0; n < 190; ++n) text += "a.";
    text += fmt::format("b{}]\n", line);
  }
  EXPECT_NE(problems(text), "");
  std::string values = "a = ";
  for (int n = 0; n < 2000; ++n) {
    values += "{";
    for (int m = 0; m < 190; ++m) values += "a.";
    values += "a = [\n";
  }
  EXPECT_NE(problems(values), "");
  EXPECT_NE(problems("a = " + std::string(500000, '[')), "");
  EXPECT_NE(problems("a = " + std::string(500000, '{')), "");
}

}  // namespace
}  // namespace tarn
