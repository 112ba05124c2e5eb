// SPDX-License-Identifier: GPL-2.0
#include "client/messages.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <list>

#include "client/pages.h"
#include "tests/replicate/message_builder.h"

namespace tarn {
namespace {

using namespace test;

std::string text_of(Bytes bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

/* The packet is kept, so that the record's views stay good. */
Record decoded(const Packet &packet) {
  static std::list<Packet> kept;
  auto message = decode(kept.emplace_back(packet));
  EXPECT_TRUE(message.ok()) << (message.ok() ? "" : message.error().text);
  return message.ok() ? std::get<Record>(*message) : Record{};
}

template <class T>
T change_of(const Packet &packet) {
  const Record record = decoded(packet);
  const T *change = std::get_if<T>(&record.change);
  EXPECT_NE(change, nullptr);
  return change ? *change : T{};
}

/* The text of the error, after its common beginning. */
std::string error_of(const Packet &packet) {
  const std::string begin = "malformed message: ";
  const auto message = decode(packet);
  if (message.ok()) return "no error";
  EXPECT_EQ(message.error().code, -EBADMSG);
  EXPECT_TRUE(message.error().text.starts_with(begin)) << message.error().text;
  return message.error().text.substr(begin.size());
}

template <class T>
void poke(Packet &packet, std::size_t payload_offset, T value) {
  std::memcpy(packet.data() + 16 + payload_offset, &value, sizeof(value));
}

TEST(Messages, head_of_a_record) {
  const Record record =
      decoded(name_change(OX_OP_CREATE, {77, rule_uuid(3), 123456789}, "/d/f", {}, 0644));
  EXPECT_EQ(record.rule, rule_uuid(3));
  EXPECT_EQ(record.ts, 123456789u);
  EXPECT_EQ(record.wseq, 77u);
  EXPECT_TRUE(record.last());
}

TEST(Messages, naming_and_generation) {
  const auto with = [](std::uint16_t cp) {
    return name_change(OX_OP_CREATE, {.cp = cp, .generation = 0x89ABCDEF}, "/d/f");
  };
  EXPECT_EQ(decoded(with(OX_CP_NAMED)).naming, Naming::kNamed);
  EXPECT_EQ(decoded(with(OX_CP_NAMELESS)).naming, Naming::kNameless);
  EXPECT_EQ(decoded(with(OX_CP_UNPLACED)).naming, Naming::kUnplaced);
  EXPECT_EQ(decoded(with(OX_CP_NAMED)).generation, 0x89ABCDEFu);
  EXPECT_EQ(error_of(with(3)), "a record whose path is 3 to its object, at most 2 expected");
}

TEST(Messages, name_changes) {
  EXPECT_EQ(change_of<Create>(name_change(OX_OP_CREATE, {}, "/d/f", {}, 0100644)).path, "/d/f");
  EXPECT_EQ(change_of<Create>(name_change(OX_OP_CREATE, {}, "/d/f", {}, 0100644)).mode, 0100644u);
  EXPECT_EQ(change_of<Mkdir>(name_change(OX_OP_MKDIR, {}, "/d/\xff\n x", {}, 0755)).path,
            "/d/\xff\n x");
  EXPECT_EQ(change_of<Unlink>(name_change(OX_OP_UNLINK, {}, "/d/f")).path, "/d/f");
  EXPECT_EQ(change_of<Rmdir>(name_change(OX_OP_RMDIR, {}, "/d")).path, "/d");
  const auto symlink = change_of<Symlink>(name_change(OX_OP_SYMLINK, {}, "/d/l", "../x", 07777));
  EXPECT_EQ(symlink.path, "/d/l");
  EXPECT_EQ(symlink.target, "../x");
  EXPECT_EQ(symlink.mode, 07777u);
  const auto link = change_of<Link>(name_change(OX_OP_LINK, {}, "/d/old", "/d/new"));
  EXPECT_EQ(link.existing, "/d/old");
  EXPECT_EQ(link.path, "/d/new");
  const auto rename = change_of<Rename>(name_change(OX_OP_RENAME, {}, "/d/from", "/e/to", 0100600));
  EXPECT_EQ(rename.from, "/d/from");
  EXPECT_EQ(rename.to, "/e/to");
  EXPECT_EQ(rename.mode, 0100600u);
}

TEST(Messages, every_attribute_has_its_own_place) {
  const SetAttr given{"/d/f", 0x1ff, 0640, 1001, 1002, 1003, -1004, 1005, -1006};
  const auto got = change_of<SetAttr>(set_attributes({}, given));
  EXPECT_EQ(got.path, "/d/f");
  EXPECT_EQ(got.valid, 0x1ffu);
  EXPECT_EQ(got.mode, 0640u);
  EXPECT_EQ(got.uid, 1001u);
  EXPECT_EQ(got.gid, 1002u);
  EXPECT_EQ(got.size, 1003u);
  EXPECT_EQ(got.atime, -1004);
  EXPECT_EQ(got.mtime, 1005);
  EXPECT_EQ(got.ctime, -1006);
}

TEST(Messages, write_is_whole_as_long_as_it_fits) {
  const std::string path = "/twenty/characters/x";  // 20 characters: a field of 24
  const auto whole = write_data({}, path, 100, std::string(4012, 'a'));
  ASSERT_EQ(whole.size(), 1u);
  EXPECT_EQ(change_of<Write>(whole[0]).data.size(), 4012u);
  const auto paged = write_data({}, path, 100, std::string(4012, 'a') + "b");
  ASSERT_EQ(paged.size(), 2u);
  EXPECT_EQ(paged[0].size(), 4112u);
  const auto page0 = change_of<WritePage>(paged[0]), page1 = change_of<WritePage>(paged[1]);
  EXPECT_EQ(page0.path, path);
  EXPECT_EQ(page0.data.size(), 4012u);
  EXPECT_EQ(page1.path, "");
  EXPECT_EQ(text_of(page1.data), "b");
  EXPECT_EQ(page1.offset, 4112u);
  EXPECT_EQ(page1.page, 1u);
  EXPECT_EQ(page1.pages, 2u);
  EXPECT_FALSE(decoded(paged[0]).last());
  EXPECT_TRUE(decoded(paged[1]).last());
}

TEST(Messages, empty_write_and_paths_at_the_edge_of_their_field) {
  EXPECT_EQ(change_of<Write>(write_data({}, "/123456", 5, "")[0]).path, "/123456");  // 7 + NUL: 8
  EXPECT_EQ(change_of<Write>(write_data({}, "/1234567", 5, "")[0]).path,
            "/1234567");  // 8 + NUL: 16
  EXPECT_TRUE(change_of<Write>(write_data({}, "/123456", 5, "")[0]).data.empty());
}

TEST(Messages, stop_notice_and_replies) {
  auto stop = decode(stop_rule(rule_uuid(9)));
  ASSERT_TRUE(stop.ok());
  EXPECT_EQ(std::get<StopRule>(*stop).rule, rule_uuid(9));
  auto answer = decode(reply(OX_SO_REP_DEL, -1003));
  ASSERT_TRUE(answer.ok());
  EXPECT_EQ(std::get<Reply>(*answer).request, OX_SO_REP_DEL);
  EXPECT_EQ(std::get<Reply>(*answer).result, -1003);
}

TEST(Messages, wrong_frames) {
  EXPECT_EQ(error_of({}), "0 bytes, at least 16 expected");
  EXPECT_EQ(error_of(Packet(15)), "15 bytes, at least 16 expected");
  Packet packet = stop_rule(rule_uuid());
  packet[0] = std::byte{15};
  EXPECT_EQ(error_of(packet), "a packet of 32 bytes whose header says 15");
  packet[0] = std::byte{33};
  EXPECT_EQ(error_of(packet), "a packet of 32 bytes whose header says 33");
  packet[0] = std::byte{28};
  EXPECT_EQ(error_of(packet), "a packet of 32 bytes whose header says 28");
  EXPECT_EQ(error_of(message(11, Packet(44))), "unknown type 11");
  EXPECT_EQ(error_of(message(OX_OP_STOP_RULE, Packet(15))), "a stop notice of 15 bytes, not 16");
  EXPECT_EQ(error_of(message(OX_SO_REP_ADD, Packet(5))), "an answer of 5 bytes, not 4");
  EXPECT_EQ(error_of(message(OX_OP_COLLECT, Packet(43))),
            "a change record of 43 bytes, at least 44 expected");
}

TEST(Messages, wrong_heads) {
  Packet packet = name_change(OX_OP_CREATE, {5}, "/d/f");
  poke<std::uint8_t>(packet, 29, 2);
  EXPECT_EQ(error_of(packet), "a record of system 2, not 1");
  packet = name_change(OX_OP_CREATE, {5}, "/d/f");
  poke<std::uint32_t>(packet, 24, 6);
  EXPECT_EQ(error_of(packet), "number 6 in the record and 5 in the header");
  for (const int op : {4, 10, 11, 12, 255}) {
    packet = name_change(OX_OP_CREATE, {5}, "/d/f");
    poke<std::uint8_t>(packet, 28, static_cast<std::uint8_t>(op));
    EXPECT_EQ(error_of(packet), "unknown operation " + std::to_string(op));
  }
}

TEST(Messages, wrong_name_records) {
  Packet packet = name_change(OX_OP_CREATE, {}, "/d/f");
  poke<std::uint16_t>(packet, 36, 6);
  EXPECT_EQ(error_of(packet), "a name record of 44 + 6 + 0 bytes in a payload of 49");
  packet = name_change(OX_OP_LINK, {}, "/d/f", "/d/g");
  poke<std::uint8_t>(packet, 28, OX_OP_CREATE);
  EXPECT_EQ(error_of(packet), "operation 0 with 5 bytes of a second string");
  packet = name_change(OX_OP_CREATE, {}, "/d/f");
  poke<std::uint8_t>(packet, 28, OX_OP_RENAME);
  EXPECT_EQ(error_of(packet), "operation 7 with 0 bytes of a second string");
  EXPECT_EQ(error_of(name_change(OX_OP_CREATE, {}, "d/f")), "the path is not absolute");
  EXPECT_EQ(error_of(name_change(OX_OP_CREATE, {}, "")), "the path is not absolute");
  EXPECT_EQ(error_of(name_change(OX_OP_RENAME, {}, "/d", "e")), "the second path is not absolute");
  EXPECT_EQ(error_of(name_change(OX_OP_CREATE, {}, std::string_view("/d\0f", 4))),
            "the path holds a NUL at byte 2 of 5");
  packet = name_change(OX_OP_CREATE, {}, "/d/f");
  poke<char>(packet, 48, 'x');
  EXPECT_EQ(error_of(packet), "the path does not end in a NUL");
  packet = name_change(OX_OP_SYMLINK, {}, "/d/f", "target");
  poke<char>(packet, 55, 'x');
  EXPECT_EQ(error_of(packet), "the link's target does not end in a NUL");
  EXPECT_EQ(error_of(name_change(OX_OP_CREATE, {}, "/" + std::string(4096, 'x'))),
            "the path has 4098 bytes, more than 4096");
}

TEST(Messages, wrong_attribute_records) {
  const SetAttr change{"/d/f", 1, 0640, 0, 0, 0, 0, 0, 0};
  Packet packet = set_attributes({}, change);
  poke<std::uint32_t>(packet, 36, 13);
  EXPECT_EQ(error_of(packet), "an owner block of 13 bytes, not 12");
  packet = set_attributes({}, change);
  poke<std::int16_t>(packet, 84, 55);
  EXPECT_EQ(error_of(packet), "attribute blocks of 55 bytes, not 56");
  packet = set_attributes({}, change);
  poke<std::uint32_t>(packet, 40, 0xffffffff);
  EXPECT_EQ(error_of(packet),
            "a path of 4294967295 bytes in an attribute record that has 5 for it");
  Packet payload(packet.begin() + 16, packet.begin() + 16 + 99);
  EXPECT_EQ(error_of(message(OX_OP_COLLECT, payload, 1)),
            "an attribute record of 99 bytes, at least 100 expected");
}

TEST(Messages, wrong_writes) {
  const auto whole = [](auto change) {
    Packet packet = write_data({}, "/d/f", 0, "data")[0];
    change(packet);
    return packet;
  };
  EXPECT_EQ(error_of(whole([](Packet &p) { poke<std::uint16_t>(p, 36, 2); })),
            "a write of type 2 in a message of type 10");
  EXPECT_EQ(error_of(whole([](Packet &p) { poke<std::uint32_t>(p, 56, 2); })),
            "page 0 of 2 in a write of type 1");
  EXPECT_EQ(error_of(whole([](Packet &p) { poke<std::uint32_t>(p, 40, 0xfffffff0); })),
            "a write of 60 + 8 + 4294967280 bytes in a payload of 72");
  EXPECT_EQ(error_of(whole([](Packet &p) { poke<std::uint64_t>(p, 44, 0x7ffffffffffffffd); })),
            "a write of 4 bytes at offset 9223372036854775805");
  EXPECT_EQ(error_of(whole([](Packet &p) { poke<std::uint64_t>(p, 60, 0x2f2f2f2f2f2f2f2f); })),
            "the path field of a write holds no NUL");
  EXPECT_EQ(error_of(whole([](Packet &p) { poke<char>(p, 60, 'x'); })), "the path is not absolute");
  Packet packet = write_data({}, "/d/longer", 0, "data")[0];
  poke<char>(packet, 60 + 3, 0);
  EXPECT_EQ(error_of(packet), "a path of 3 bytes in a field of 16");
}

TEST(Messages, wrong_pages) {
  const auto pages = write_data({}, "/d/f", 0, std::string(10000, 'x'));
  ASSERT_EQ(pages.size(), 3u);
  const auto changed = [&](std::size_t page, auto change) {
    Packet packet = pages[page];
    change(packet);
    return packet;
  };
  EXPECT_EQ(error_of(changed(1, [](Packet &p) { poke<std::uint32_t>(p, 52, 3); })),
            "page 3 of 3 in a write of type 2");
  EXPECT_EQ(error_of(changed(0, [](Packet &p) { poke<std::uint32_t>(p, 56, 1); })),
            "page 0 of 1 in a write of type 2");
  EXPECT_EQ(error_of(changed(0, [](Packet &p) { poke<std::uint32_t>(p, 52, 1); })),
            "page 1 carries a path");
  EXPECT_EQ(error_of(changed(2, [](Packet &p) { poke<std::uint32_t>(p, 52, 1); })),
            "page 1 of 3 is not full: " + std::to_string(pages[2].size() - 16) + " bytes");
  EXPECT_EQ(error_of(changed(0, [](Packet &p) { poke<std::uint8_t>(p, 28, OX_OP_CREATE); })),
            "operation 0 in a message of type 9");
  EXPECT_EQ(error_of(changed(0, [](Packet &p) { p[4] = std::byte{OX_OP_COLLECT}; })),
            "a write of type 2 in a message of type 10");
}

std::vector<Packet> one_of_each() {
  std::vector<Packet> packets = {name_change(OX_OP_CREATE, {}, "/d/f", {}, 0644),
                                 name_change(OX_OP_RENAME, {}, "/d/f", "/d/g"),
                                 set_attributes({}, {"/d/f", 7, 0640, 1, 2, 3, 4, 5, 6}),
                                 stop_rule(rule_uuid()),
                                 reply(OX_SO_REP_ADD, 0),
                                 write_data({}, "/d/f", 9, "data")[0]};
  for (Packet &page : write_data({}, "/d/f", 0, std::string(5000, 'x')))
    packets.push_back(std::move(page));
  return packets;
}

/* A copy with no spare room, so that the address sanitizer sees a read behind its end. */
bool decodes(const Packet &packet, std::size_t length) {
  Packet exact(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(length));
  exact.shrink_to_fit();
  return decode(exact).ok();
}

TEST(Messages, every_shorter_one_is_refused) {
  for (const Packet &packet : one_of_each()) {
    std::uint32_t length;
    std::memcpy(&length, packet.data(), sizeof(length));
    for (std::size_t cut = 0; cut < length; ++cut) {
      EXPECT_FALSE(decodes(packet, cut)) << "type " << int(packet[4]) << " cut to " << cut;
      Packet shrunk(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(cut));
      if (cut < 16) continue;
      const auto said = static_cast<std::uint32_t>(cut);
      std::memcpy(shrunk.data(), &said, sizeof(said));
      EXPECT_FALSE(decodes(shrunk, cut)) << "type " << int(packet[4]) << " shortened to " << cut;
    }
  }
}

TEST(Messages, random_bytes_never_decode_beyond_their_end) {
  EXPECT_TRUE(rc::check("random bytes in a random frame", [] {
    const auto payload =
        *rc::gen::container<std::vector<std::uint8_t>>(rc::gen::arbitrary<std::uint8_t>());
    Packet bytes;
    for (const auto b : payload) bytes.push_back(std::byte{b});
    const auto type = *rc::gen::element<std::uint16_t>(9, 10, 12, 177, 179, 182, 0, 65535);
    Packet packet = message(type, bytes, *rc::gen::arbitrary<std::uint32_t>());
    packet.shrink_to_fit();
    const auto result = decode(packet);
    const bool fine = result.ok() || result.error().code == -EBADMSG;
    RC_ASSERT(fine);
  }));
}

TEST(Messages, flipped_bytes_never_decode_beyond_their_end) {
  const auto originals = one_of_each();
  EXPECT_TRUE(rc::check("some bytes of a message changed", [&] {
    Packet packet = *rc::gen::elementOf(originals);
    const int changes = *rc::gen::inRange(1, 6);
    for (int i = 0; i < changes; ++i)
      packet[*rc::gen::inRange<std::size_t>(0, std::min<std::size_t>(packet.size(), 120))] =
          std::byte{*rc::gen::arbitrary<std::uint8_t>()};
    packet.shrink_to_fit();
    auto result = decode(packet);
    if (result.ok()) {
      if (const auto *record = std::get_if<Record>(&*result))
        RC_ASSERT(!describe(record->change).empty());
    }
  }));
}

TEST(Messages, what_is_built_is_decoded) {
  EXPECT_TRUE(rc::check("any write, in pages or not, comes back", [] {
    const auto name = *rc::gen::nonEmpty(rc::gen::container<std::string>(rc::gen::nonZero<char>()));
    const std::string path = "/" + name.substr(0, 200);
    const auto size = *rc::gen::inRange<std::size_t>(0, 20000);
    const auto offset = *rc::gen::inRange<std::uint64_t>(0, 1ull << 40);
    const std::string data(size, 'x');
    PageFollower follower;
    std::uint64_t got = 0;
    const auto packets = write_data({7}, path, offset, data);
    for (const Packet &packet : packets) {
      auto message = decode(packet);
      RC_ASSERT(message.ok());
      const Record record = std::get<Record>(*message);
      if (const auto *whole = std::get_if<Write>(&record.change)) {
        RC_ASSERT(whole->path == path && whole->offset == offset);
        got += whole->data.size();
        continue;
      }
      const auto place = follower.follow(record);
      RC_ASSERT(place.ok());
      RC_ASSERT(place->path == path && place->start == offset);
      got += std::get<WritePage>(record.change).data.size();
      RC_ASSERT(place->bytes == got && place->last == (got == size));
    }
    RC_ASSERT(got == size);
    RC_ASSERT(follower.unfinished() == 0u);
  }));
}

TEST(Pages, breaks_are_reported) {
  const auto packets = write_data({7}, "/d/f", 0, std::string(12000, 'x'));
  ASSERT_EQ(packets.size(), 3u);
  PageFollower follower;
  const auto follow = [&](const Packet &packet) { return follower.follow(decoded(packet)); };
  EXPECT_EQ(follow(packets[1]).error().code, -ENODATA);
  EXPECT_TRUE(follow(packets[0]).ok());
  EXPECT_EQ(follow(packets[2]).error().code, -EBADMSG);
  EXPECT_EQ(follow(packets[1]).error().code, -ENODATA) << "a broken write is given up";
}

TEST(Pages, only_so_many_unfinished_writes_are_kept) {
  PageFollower follower;
  for (std::uint32_t n = 0; n < PageFollower::kOpenWrites + 10; ++n)
    EXPECT_TRUE(
        follower.follow(decoded(write_data({n}, "/d/f", 0, std::string(5000, 'x'))[0])).ok());
  EXPECT_EQ(follower.unfinished(), PageFollower::kOpenWrites);
}

TEST(Messages, words) {
  EXPECT_EQ(describe(decoded(name_change(OX_OP_CREATE, {}, "/a b", {}, 0100644)).change),
            "create \"/a b\" mode 0644");
  EXPECT_EQ(describe(decoded(name_change(OX_OP_RENAME, {}, "/a", "/b")).change), "rename /a to /b");
  EXPECT_EQ(describe(decoded(set_attributes({}, {"/a", OX_ATTR_MODE | OX_ATTR_MTIME, 0100600, 1, 2,
                                                 3, 4, kTime, 6}))
                         .change),
            "setattr /a mode 0600 mtime 2006-09-20 03:42:06.123456");
  EXPECT_EQ(
      describe(decoded(set_attributes({}, {"/a", OX_ATTR_ATIME, 0, 0, 0, 0, -1, 0, 0})).change),
      "setattr /a atime 1969-12-31 23:59:59.999999");
  EXPECT_EQ(describe(decoded(write_data({}, "/a", 9, "data")[0]).change),
            "write /a offset 9 bytes 4");
}

}  // namespace
}  // namespace tarn
