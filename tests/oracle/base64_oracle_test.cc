// SPDX-License-Identifier: GPL-2.0
// The module's Base64 against the `base64` program of the system.
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz/uk_fuzz.h"
#include "tests/oracle/booted_test.h"

namespace oracle {
namespace {

constexpr int kRounds = 60;
constexpr std::size_t kLine = 76;

struct Output {
  bool ok;
  std::string bytes;
};

/* A folder for the program's input. */
class Base64Oracle : public Booted {
 protected:
  void SetUp() override {
    Booted::SetUp();
    std::string name = testing::TempDir() + "/base64-oracle.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  /* What `base64 OPTIONS` makes of the bytes. */
  Output program(const std::string &options, const std::string &bytes) const {
    const std::filesystem::path input = folder_ / "input";
    std::ofstream(input, std::ios::binary) << bytes;
    const std::string command = "base64 " + options + " '" + input.string() + "' 2>/dev/null";
    FILE *pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    Output output{false, ""};
    char buffer[65536];
    for (std::size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
      output.bytes.append(buffer, n);
    const int status = pclose(pipe);
    output.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return output;
  }

 private:
  std::filesystem::path folder_;
};

std::string encode(const std::string &bytes, int crlf) {
  int size = uk_fuzz_base64_encode_len(static_cast<int>(bytes.size()), crlf);
  std::vector<char> out(static_cast<std::size_t>(size) + 1);
  EXPECT_TRUE(
      uk_fuzz_base64_encode(bytes.data(), static_cast<int>(bytes.size()), out.data(), &size, crlf));
  return {out.data(), static_cast<std::size_t>(size)};
}

Output decode(const std::string &text) {
  int size = uk_fuzz_base64_decode_len(static_cast<int>(text.size())) + 1;
  std::vector<char> out(static_cast<std::size_t>(size));
  if (!uk_fuzz_base64_decode(text.data(), static_cast<int>(text.size()), out.data(), &size))
    return {false, ""};
  return {true, {out.data(), static_cast<std::size_t>(size)}};
}

/* The program ends every line with LF, the last one too; the module parts lines with CR LF. */
std::string with_crlf(const std::string &lines) {
  std::string out;
  for (std::size_t at = 0; at < lines.size(); ++at) {
    if (lines[at] != '\n')
      out += lines[at];
    else if (at + 1 < lines.size())
      out += "\r\n";
  }
  return out;
}

/* Every short length, and lengths about whole lines and large. */
int length_of(int round, Random &random) {
  if (round < 8) return round;
  if (round % 3 == 0) return 57 * (1 + random.below(8)) - 2 + random.below(5);
  return random.below(round % 10 == 1 ? 200000 : 2000);
}

TEST_F(Base64Oracle, encodes_as_the_program_does) {
  Random random;
  for (int round = 0; round < kRounds * effort(); ++round) {
    const std::string bytes = random.bytes(length_of(round, random));
    ASSERT_EQ(encode(bytes, 0), program("-w0", bytes).bytes) << bytes.size() << " bytes";
    ASSERT_EQ(encode(bytes, 1), with_crlf(program("-w" + std::to_string(kLine), bytes).bytes))
        << bytes.size() << " bytes";
  }
}

TEST_F(Base64Oracle, decodes_what_the_program_encodes) {
  Random random;
  for (int round = 0; round < kRounds * effort(); ++round) {
    const std::string bytes = random.bytes(length_of(round, random));
    const int width = random.below(100); /* 0: one line */
    const Output got = decode(program("-w" + std::to_string(width), bytes).bytes);
    ASSERT_TRUE(got.ok);
    ASSERT_EQ(got.bytes, bytes);
  }
}

TEST_F(Base64Oracle, the_program_decodes_what_is_encoded) {
  Random random;
  for (int round = 0; round < kRounds * effort(); ++round) {
    const std::string bytes = random.bytes(length_of(round, random));
    const Output got = program("-d -i", encode(bytes, round % 2));
    ASSERT_TRUE(got.ok);
    ASSERT_EQ(got.bytes, bytes);
  }
}

TEST_F(Base64Oracle, skips_foreign_characters_as_the_program_does_when_asked) {
  Random random;
  constexpr char kForeign[] = " \t\r\n*!-_.~#$%&()[]{}?@^'\"<>;:,|\\`";
  for (int round = 0; round < kRounds * effort(); ++round) {
    std::string text = encode(random.bytes(random.below(300)), 0);
    for (int count = random.below(40); count > 0; --count) {
      const int at = random.below(static_cast<int>(text.size()) + 1);
      text.insert(static_cast<std::size_t>(at), 1, kForeign[random.below(sizeof(kForeign) - 1)]);
    }
    const Output expected = program("-d -i", text);
    const Output got = decode(text);
    ASSERT_TRUE(expected.ok);
    ASSERT_TRUE(got.ok) << text;
    ASSERT_EQ(got.bytes, expected.bytes) << text;
  }
}

TEST_F(Base64Oracle, refuses_a_loose_character_as_the_program_does) {
  Random random;
  for (int round = 0; round < kRounds * effort(); ++round) {
    const std::string text = encode(random.bytes(3 * random.below(60)), 0) + "A";
    ASSERT_FALSE(program("-d", text).ok);
    ASSERT_FALSE(decode(text).ok) << text;
  }
}

}  // namespace
}  // namespace oracle
