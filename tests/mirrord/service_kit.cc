// SPDX-License-Identifier: GPL-2.0
#include "tests/mirrord/service_kit.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "mirrord/file_status.h"

namespace tarn::test {

std::vector<LoggedEntry> entries_of(const Log &log) {
  std::vector<LoggedEntry> entries;
  LogReader reader(log, log.first());
  for (;;) {
    const auto entry = reader.next();
    if (!entry && reader.skip_damage()) continue;
    EXPECT_TRUE(entry.ok());
    if (!entry || !*entry) return entries;
    const Bytes payload = (*entry)->payload;
    entries.push_back({(*entry)->position,
                       static_cast<EntryKind>((*entry)->kind),
                       {payload.begin(), payload.end()}});
  }
}

std::string kinds_of(const Log &log) {
  std::string kinds;
  for (const LoggedEntry &entry : entries_of(log))
    kinds += "?RGM(L)"[static_cast<unsigned>(entry.kind)];
  return kinds;
}

GapEntry last_gap_of(const Log &log) {
  GapEntry gap;
  for (const LoggedEntry &entry : entries_of(log)) {
    if (entry.kind == EntryKind::kGap) gap = *decode_gap(entry.bytes());
  }
  return gap;
}

std::unique_ptr<Intake> open_intake(const std::string &directory, std::uint64_t limit) {
  std::filesystem::create_directories(directory);
  auto intake = Intake::open({.name = "s", .directory = directory, .log_limit = limit});
  EXPECT_TRUE(intake.ok()) << intake.error().text;
  return intake ? std::move(*intake) : nullptr;
}

void feed(Intake &intake, const Packet &packet) {
  const Bytes bytes{packet.data(), packet.size()};
  const auto message = decode(bytes);
  ASSERT_TRUE(message.ok() && std::holds_alternative<Record>(*message));
  intake.record(std::get<Record>(*message), bytes);
}

void feed(Intake &intake, const std::vector<Packet> &packets) {
  for (const Packet &packet : packets) feed(intake, packet);
}

std::uint64_t put_mark(Intake &intake) {
  const std::uint64_t number = intake.last_mark() + 1;
  EXPECT_TRUE(intake.mark({number, now_us()}));
  return number;
}

Packet created(std::uint32_t number, const std::string &path, std::uint32_t generation) {
  const auto now = static_cast<std::uint64_t>(now_us());
  return name_change(OX_OP_CREATE, {number, rule_uuid(), now, OX_CP_NAMED, generation}, path, {},
                     0100644);
}

void copy_directory(const std::string &from, const std::string &to) {
  std::filesystem::copy(from, to, std::filesystem::copy_options::recursive);
}

}  // namespace tarn::test
