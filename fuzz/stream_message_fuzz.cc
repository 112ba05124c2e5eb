// SPDX-License-Identifier: GPL-2.0
// Any messages of a stream: each is what its encoder writes, or refused, and entries come out of
// them in order, each position once.
//
// Input: messages, each with its length (2 bytes). A checksum of zero is made right, so that what
// lies behind it is reached.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

#include "fuzz/input.h"
#include "mirrord/stream/assembler.h"
#include "mirrord/stream/format.h"

namespace {

using namespace tarn;

void check(bool holds) {
  if (!holds) std::abort();
}

bool has_no_checksum(Bytes bytes) {
  if (bytes.size() < sizeof(MessageHeader)) return false;
  std::uint64_t checksum = 0;
  std::memcpy(&checksum, bytes.data() + offsetof(MessageHeader, checksum), sizeof(checksum));
  return checksum == 0;
}

std::vector<std::byte> body_of(const StreamMessage &message) {
  std::vector<std::byte> body(message.piece.begin(), message.piece.end());
  for (const LogEntry &entry : message.entries) {
    const MessageEntryHeader head = entry_head(entry);
    const Bytes bytes = std::as_bytes(std::span(&head, 1));
    body.insert(body.end(), bytes.begin(), bytes.end());
    body.insert(body.end(), entry.payload.begin(), entry.payload.end());
  }
  return body;
}

/* The same message, not packed, is read as the same. */
void try_alone(Bytes bytes) {
  MessageDecoder decoder, other;
  const auto message = decoder.decode(bytes);
  if (!message) {
    const int code = message.error().code;
    check((code == -EBADMSG || code == -EPROTO) && !message.error().text.empty());
    return;
  }
  const std::vector<std::byte> body = body_of(*message);
  check(!body.empty() && body.size() <= kMessageBodyMax && message->behind > message->place);
  const auto count = static_cast<std::uint32_t>(message->entries.size());
  const std::vector<std::byte> again = encode_message(*message, count, body, Packing::kNone);
  const auto second = other.decode(again);
  check(second.ok() && body_of(*second) == body && message_id(*second) == message_id(*message));
  check(second->behind == message->behind && second->whole == message->whole);
  // A message that was not packed has one form only.
  if (again.size() == bytes.size() && bytes[offsetof(MessageHeader, packing)] == std::byte{0})
    check(std::memcmp(again.data(), bytes.data(), again.size()) == 0);
}

void try_in_order(Assembler &assembler, Bytes bytes, LogPosition &next) {
  for (int tries = 0; tries < 3; ++tries) {
    for (const LogEntry &entry : assembler.take(bytes)) {
      check(next == 0 || entry.position == next);
      next = entry.position + 1;
    }
    if (!assembler.hole()) return;
    check(!assembler.hole()->text.empty());
    assembler.go_on();
    next = 0;
  }
  check(!assembler.hole());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input input(data, size);
  Assembler assembler{std::nullopt};
  LogPosition next = 0;  // any
  while (!input.empty()) {
    const std::string text = input.bytes();
    std::vector<std::byte> bytes(text.size());
    if (!text.empty()) std::memcpy(bytes.data(), text.data(), text.size());
    if (has_no_checksum(bytes)) seal_message(bytes);
    try_alone(bytes);
    try_in_order(assembler, bytes, next);
  }
  return 0;
}
