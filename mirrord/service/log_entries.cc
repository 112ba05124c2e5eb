// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/log_entries.h"

#include <cerrno>

#include "mirrord/byte_fields.h"

namespace tarn {
namespace {

bool get_flag(FieldReader &fields) {
  const auto value = fields.get<std::uint8_t>();
  fields.require(value <= 1);
  return value == 1;
}

template <class T>
Result<T> whole(const FieldReader &fields, T entry, const char *what) {
  if (fields.done()) return entry;
  return Error{-EBADMSG, std::string("a ") + what + " entry of the log is malformed"};
}

}  // namespace

std::vector<std::byte> encode(const GapEntry &entry) {
  return FieldWriter().put(entry.since).put_text(entry.reason).take();
}
std::vector<std::byte> encode(const MarkEntry &entry) {
  return FieldWriter().put(entry.number).put(entry.until).take();
}
std::vector<std::byte> encode(const WalkBeginEntry &entry) {
  return FieldWriter().put(entry.walk).put(entry.since).put_text(entry.target).take();
}
std::vector<std::byte> encode(const LookEntry &entry) {
  return FieldWriter().put(entry.walk).put(entry.done).put_text(entry.directory).take();
}
std::vector<std::byte> encode(const WalkEndEntry &entry) {
  return FieldWriter().put(entry.walk).put(static_cast<std::uint8_t>(entry.complete)).take();
}
std::vector<std::byte> encode(const JoinEntry &entry) {
  FieldWriter fields;
  for (const std::uint8_t byte : entry.epoch.bytes) fields.put(byte);
  return fields.put(entry.position)
      .put(static_cast<std::uint8_t>(entry.missing))
      .put_text(entry.reason)
      .take();
}

Result<GapEntry> decode_gap(Bytes payload) {
  FieldReader fields(payload);
  GapEntry entry;
  entry.since = fields.get<std::int64_t>();
  entry.reason = fields.get_text();
  return whole(fields, std::move(entry), "gap");
}
Result<MarkEntry> decode_mark(Bytes payload) {
  FieldReader fields(payload);
  MarkEntry entry;
  entry.number = fields.get<std::uint64_t>();
  entry.until = fields.get<std::int64_t>();
  return whole(fields, entry, "mark");
}
Result<WalkBeginEntry> decode_walk_begin(Bytes payload) {
  FieldReader fields(payload);
  WalkBeginEntry entry;
  entry.walk = fields.get<std::uint64_t>();
  entry.since = fields.get<std::int64_t>();
  entry.target = fields.get_text();
  return whole(fields, std::move(entry), "walk begin");
}
Result<LookEntry> decode_look(Bytes payload) {
  FieldReader fields(payload);
  LookEntry entry;
  entry.walk = fields.get<std::uint64_t>();
  entry.done = fields.get<std::uint32_t>();
  entry.directory = fields.get_text();
  return whole(fields, std::move(entry), "look");
}
Result<WalkEndEntry> decode_walk_end(Bytes payload) {
  FieldReader fields(payload);
  WalkEndEntry entry;
  entry.walk = fields.get<std::uint64_t>();
  entry.complete = get_flag(fields);
  return whole(fields, entry, "walk end");
}
Result<JoinEntry> decode_join(Bytes payload) {
  FieldReader fields(payload);
  JoinEntry entry;
  for (std::uint8_t &byte : entry.epoch.bytes) byte = fields.get<std::uint8_t>();
  entry.position = fields.get<std::uint64_t>();
  entry.missing = get_flag(fields);
  entry.reason = fields.get_text();
  return whole(fields, std::move(entry), "join");
}

}  // namespace tarn
