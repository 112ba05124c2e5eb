/* SPDX-License-Identifier: GPL-2.0 */
/* Builds the module's messages out of the shared structures, for tests that need some to decode. */
#ifndef TARN_TESTS_REPLICATE_MESSAGE_BUILDER_H
#define TARN_TESTS_REPLICATE_MESSAGE_BUILDER_H

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "client/messages.h"
#include "client/uuid.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn::test {

using Packet = std::vector<std::byte>;

inline constexpr std::uint64_t kTime = 1'158'723'726'123'456;

inline Uuid rule_uuid(std::uint8_t n = 1) {
  Uuid uuid;
  for (std::size_t i = 0; i < uuid.bytes.size(); ++i)
    uuid.bytes[i] = static_cast<std::uint8_t>(0x10 * n + i);
  return uuid;
}

template <class T>
void append(Packet &packet, const T &record) {
  const auto *bytes = reinterpret_cast<const std::byte *>(&record);
  packet.insert(packet.end(), bytes, bytes + sizeof(record));
}

inline void append_text(Packet &packet, std::string_view text) {
  const auto *bytes = reinterpret_cast<const std::byte *>(text.data());
  packet.insert(packet.end(), bytes, bytes + text.size());
}

inline void append_string(Packet &packet, std::string_view text) {
  append_text(packet, text);
  packet.push_back(std::byte{0});
}

/* Puts the netlink header in front; the module pads whole records to a multiple of 4. */
inline Packet message(std::uint16_t type, const Packet &payload, std::uint32_t seq = 0,
                      std::uint16_t flags = 0) {
  struct {
    std::uint32_t length;
    std::uint16_t type, flags;
    std::uint32_t seq, pid;
  } header{static_cast<std::uint32_t>(16 + payload.size()), type, flags, seq, 4711};
  Packet packet;
  append(packet, header);
  packet.insert(packet.end(), payload.begin(), payload.end());
  if (type == OX_OP_COLLECT) packet.resize((packet.size() + 3) / 4 * 4);
  return packet;
}

/* Which rule, which number, when; what the path is to the object (OX_CP_*); the rule's life. */
struct Stamp {
  std::uint32_t wseq = 1;
  Uuid rule = rule_uuid();
  std::uint64_t ts = kTime;
  std::uint16_t cp = OX_CP_NAMED;
  std::uint32_t generation = 0;
};

template <class T>
void stamp(T &record, const Stamp &stamp, std::uint8_t op) {
  std::memcpy(record.uuid, stamp.rule.bytes.data(), OX_UUID_LEN);
  record.ts = stamp.ts;
  record.wseq = stamp.wseq;
  record.op = op;
  record.os = OX_OS_LINUX;
  record.cp = stamp.cp;
  record.seq = stamp.generation;
}

inline Packet name_change(std::uint8_t op, const Stamp &s, std::string_view path,
                          std::string_view second = {}, std::uint32_t mode = 0) {
  ox_msg_para record{};
  stamp(record, s, op);
  const bool two = op == OX_OP_SYMLINK || op == OX_OP_LINK || op == OX_OP_RENAME;
  record.dlen1 = static_cast<ox_u16_t>(path.size() + 1);
  record.dlen2 = static_cast<ox_u16_t>(two ? second.size() + 1 : 0);
  record.mode = mode;
  Packet payload;
  append(payload, record);
  append_string(payload, path);
  if (two) append_string(payload, second);
  return message(OX_OP_COLLECT, payload, s.wseq);
}

inline Packet set_attributes(const Stamp &s, const SetAttr &c) {
  ox_msg_attr record{};
  stamp(record, s, OX_OP_SETATTR);
  record.dlen1 = sizeof(lin_sec);
  record.dlen2 = static_cast<ox_u32_t>(c.path.size() + 1);
  record.com.ia_valid = static_cast<ox_s32_t>(c.valid);
  record.com.ia_mode = static_cast<ox_s32_t>(c.mode);
  record.com.ia_size = c.size;
  record.com.ia_atime = static_cast<ox_u64_t>(c.atime);
  record.com.ia_mtime = static_cast<ox_u64_t>(c.mtime);
  record.com.ia_ctime = static_cast<ox_u64_t>(c.ctime);
  record.com.len = OX_ATTR_LEN;
  record.sec.ia_modeshadow = c.mode;
  record.sec.ia_uid = c.uid;
  record.sec.ia_gid = c.gid;
  Packet payload;
  append(payload, record);
  append_string(payload, c.path);
  return message(OX_OP_COLLECT, payload, s.wseq);
}

inline std::size_t path_field(std::string_view path) {
  return (path.size() + 1 + 7) / 8 * 8;
}

/* A whole write, or as many pages as it takes: the rule by which the module cuts. */
inline std::vector<Packet> write_data(const Stamp &s, std::string_view path, std::uint64_t offset,
                                      std::string_view data) {
  const std::size_t field = path_field(path);
  const bool whole = OX_MSG_WR_LEN + field + data.size() <= OX_PAGE_PAYLOAD;
  const std::size_t first = OX_PAGE_DATA - field;
  const std::size_t pages = whole ? 1 : 1 + (data.size() - first + OX_PAGE_DATA - 1) / OX_PAGE_DATA;
  std::vector<Packet> packets;
  for (std::size_t page = 0; page < pages; ++page) {
    const std::string_view part = data.substr(0, page == 0 ? first : OX_PAGE_DATA);
    ox_msg_wr record{};
    stamp(record, s, OX_OP_WRITE);
    record.type = whole ? OX_WRITE_WHOLE : OX_WRITE_PAGED;
    record.dlen1 = static_cast<ox_u16_t>(page == 0 ? field : 0);
    record.dlen2 = static_cast<ox_u32_t>(part.size());
    record.off = offset;
    record.pagenr = static_cast<ox_u32_t>(page);
    record.pages = static_cast<ox_u32_t>(pages);
    Packet payload;
    append(payload, record);
    if (page == 0) {
      append_string(payload, path);
      payload.resize(OX_MSG_WR_LEN + field);
    }
    append_text(payload, part);
    packets.push_back(whole ? message(OX_OP_COLLECT, payload, s.wseq)
                            : message(OX_OP_WRITE, payload, s.wseq, OX_NLM_F_MULTI));
    data.remove_prefix(part.size());
    offset += part.size();
  }
  return packets;
}

inline Packet stop_rule(const Uuid &uuid) {
  Packet payload;
  append(payload, uuid.bytes);
  return message(OX_OP_STOP_RULE, payload);
}

inline Packet reply(std::uint16_t type, std::int32_t result) {
  Packet payload;
  append(payload, result);
  return message(type, payload);
}

}  // namespace tarn::test

#endif
