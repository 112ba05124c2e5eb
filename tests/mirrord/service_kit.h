/* SPDX-License-Identifier: GPL-2.0 */
/* What tests of the service's parts have in common: the log of a source, and two trees. */
#ifndef TARN_TESTS_MIRRORD_SERVICE_KIT_H
#define TARN_TESTS_MIRRORD_SERVICE_KIT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "mirrord/service/intake.h"
#include "tests/replicate/message_builder.h"

namespace tarn::test {

struct LoggedEntry {
  LogPosition position = 0;
  EntryKind kind = EntryKind::kRecord;
  std::vector<std::byte> payload;
  Bytes bytes() const { return {payload.data(), payload.size()}; }
};
/* From the first one that is kept; without what is damaged. */
std::vector<LoggedEntry> entries_of(const Log &log);
/* One character each: R record, G gap, M mark, ( walk begin, L look, ) walk end. */
std::string kinds_of(const Log &log);
/* Of the last gap in the log; a default one if there is none. */
GapEntry last_gap_of(const Log &log);

std::unique_ptr<Intake> open_intake(const std::string &directory, std::uint64_t limit = 1 << 24);
/* Gives it the packet as the receiver does. */
void feed(Intake &intake, const Packet &packet);
void feed(Intake &intake, const std::vector<Packet> &packets);
/* A mark, and its number. */
std::uint64_t put_mark(Intake &intake);

/* A file's creation, captured now. */
Packet created(std::uint32_t number, const std::string &path, std::uint32_t generation = 7);

void copy_directory(const std::string &from, const std::string &to);

}  // namespace tarn::test

#endif
