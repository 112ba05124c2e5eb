// SPDX-License-Identifier: GPL-2.0
// The examples of docs/wire_format.md: they decode to what the text says, and the structures give
// the same bytes.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "tests/replicate/message_builder.h"

namespace tarn {
namespace {

using namespace test;

/* The blocks "```hex NAME": lines of an offset, bytes, and a comment behind '#'. */
std::map<std::string, Packet> examples() {
  std::map<std::string, Packet> found;
  std::ifstream document(WIRE_DOCUMENT);
  Packet *block = nullptr;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("```")) {
      block = line.starts_with("```hex ") ? &found[line.substr(7)] : nullptr;
      continue;
    }
    if (block == nullptr) continue;
    std::istringstream words(line.substr(0, line.find('#')));
    std::string word;
    words >> word;
    EXPECT_EQ(std::stoul(word, nullptr, 16), block->size()) << line;
    while (words >> word) block->push_back(static_cast<std::byte>(std::stoul(word, nullptr, 16)));
  }
  return found;
}

const Uuid kRule = *parse_uuid("01234567-89AB-CDEF-1032-547698BADCFE");

constexpr std::uint32_t kGeneration = 0xE7913C5A;

Stamp stamp_of(std::uint32_t wseq) {
  return {.wseq = wseq, .rule = kRule, .generation = kGeneration};
}

TEST(WireDocument, structures_give_the_same_bytes) {
  auto given = examples();
  const std::string data(4030, 'x');
  const auto pages = write_data(stamp_of(4), "/data/f", 6, data);
  ASSERT_EQ(pages.size(), 2u);
  const std::map<std::string, Packet> built = {
      {"create", name_change(OX_OP_CREATE, stamp_of(1), "/data/f", {}, 0100644)},
      {"setattr",
       set_attributes(stamp_of(2),
                      {"/data/f", OX_ATTR_MODE | OX_ATTR_UID | OX_ATTR_GID | OX_ATTR_CTIME, 0100644,
                       1000, 100, 0, kTime - 1, kTime - 1, kTime - 1})},
      {"write", write_data(stamp_of(3), "/data/f", 0, "hello\n")[0]},
      {"page0", Packet(pages[0].begin(), pages[0].begin() + 96)},
      {"page1", pages[1]},
      {"rename", name_change(OX_OP_RENAME, stamp_of(5), "/data/f", "/data/file", 0100644)},
      {"stop", stop_rule(kRule)},
      {"hello", message(OX_NL_HELO, {})},
      {"reply", reply(OX_SO_REP_DEL, OX_ERR_NOENT)},
  };
  for (const auto &[name, packet] : built) EXPECT_EQ(given[name], packet) << name;
  EXPECT_EQ(given.size(), built.size());
}

TEST(WireDocument, examples_decode) {
  auto given = examples();
  const auto record = [&](const std::string &name) {
    auto message = decode(given[name]);
    EXPECT_TRUE(message.ok()) << name << ": " << (message.ok() ? "" : message.error().text);
    return message.ok() ? std::get<Record>(*message) : Record{};
  };
  EXPECT_EQ(record("create").rule, kRule);
  EXPECT_EQ(record("create").ts, kTime);
  EXPECT_EQ(record("create").generation, kGeneration);
  EXPECT_EQ(record("create").naming, Naming::kNamed);
  EXPECT_EQ(describe(record("create").change), "create /data/f mode 0644");
  EXPECT_EQ(describe(record("setattr").change), "setattr /data/f mode 0644 uid 1000 gid 100");
  EXPECT_EQ(describe(record("write").change), "write /data/f offset 0 bytes 6");
  EXPECT_EQ(describe(record("page1").change), "write (as page 0) offset 4034 bytes 2 page 1 of 2");
  EXPECT_EQ(describe(record("rename").change), "rename /data/f to /data/file");
  given["page0"].resize(4112, std::byte{'x'});
  EXPECT_EQ(describe(record("page0").change), "write /data/f offset 6 bytes 4028 page 0 of 2");
  EXPECT_EQ(std::get<StopRule>(*decode(given["stop"])).rule, kRule);
  EXPECT_EQ(std::get<Reply>(*decode(given["reply"])).result, OX_ERR_NOENT);
}

}  // namespace
}  // namespace tarn
