// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/packer.h"

#include <algorithm>

namespace tarn {
namespace {

void append(std::vector<std::byte> &to, Bytes bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

/* What of `bytes`, which begin at `at`, lies from `begin` to `end`. */
Bytes part(Bytes bytes, std::size_t at, std::size_t begin, std::size_t end) {
  const std::size_t from = std::max(begin, at), to = std::min(end, at + bytes.size());
  return from < to ? bytes.subspan(from - at, to - from) : Bytes();
}

}  // namespace

Packer::Packer(const Uuid &log, std::uint32_t run, std::size_t message_max, Packing packing)
    : log_(log),
      run_(run),
      body_max_(std::min(message_max - sizeof(MessageHeader), kMessageBodyMax)),
      packing_(packing) {
  body_.reserve(body_max_);
}

bool Packer::add(const LogEntry &entry) {
  const std::size_t need = sizeof(MessageEntryHeader) + entry.payload.size();
  if (need > body_max_ - body_.size()) return false;
  if (entries_ != 0 && entry.position != first_ + entries_) return false;
  if (entries_ == 0) first_ = entry.position;
  ++entries_;
  const MessageEntryHeader head = entry_head(entry);
  append(body_, std::as_bytes(std::span(&head, 1)));
  append(body_, entry.payload);
  return true;
}

PackedMessage Packer::take() {
  StreamMessage message;
  message.place = {first_, 0};
  message.behind = {first_ + entries_, 0};
  PackedMessage packed = finish(message, body_);
  entries_ = 0;
  body_.clear();
  return packed;
}

PackedMessage Packer::piece(const LogEntry &entry, std::uint32_t offset) {
  const MessageEntryHeader head = entry_head(entry);
  const auto whole = static_cast<std::uint32_t>(sizeof(head) + entry.payload.size());
  const auto end = static_cast<std::uint32_t>(std::min<std::size_t>(whole, offset + body_max_));
  std::vector<std::byte> body;
  body.reserve(end - offset);
  append(body, part(std::as_bytes(std::span(&head, 1)), 0, offset, end));
  append(body, part(entry.payload, sizeof(head), offset, end));
  StreamMessage message;
  message.form = MessageForm::kPiece;
  message.place = {entry.position, offset};
  message.whole = whole;
  message.behind =
      end == whole ? StreamPlace{entry.position + 1, 0} : StreamPlace{entry.position, end};
  return finish(message, body);
}

PackedMessage Packer::finish(StreamMessage &message, Bytes body) {
  message.log = log_;
  message.run = run_;
  return {message_id(message), message.behind, encode_message(message, entries_, body, packing_)};
}

}  // namespace tarn
