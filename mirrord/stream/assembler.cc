// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/assembler.h"

#include <utility>

#include <fmt/format.h>

namespace tarn {

std::string hole_text(const StreamHole &hole) {
  switch (hole.kind) {
    case StreamHole::Kind::kMissing:
      return fmt::format("the stream lacks the entries {} to {}", hole.wanted.position,
                         hole.found.position - 1);
    case StreamHole::Kind::kOtherEpoch:
      return fmt::format(
          "the stream goes on with another log ({} at {}): what came behind entry "
          "{} of {} is not known",
          to_string(hole.found.epoch), hole.found.position, hole.wanted.position,
          to_string(hole.wanted.epoch));
    case StreamHole::Kind::kDamaged:
      break;
  }
  return fmt::format("the stream is damaged at entry {}", hole.wanted.position);
}

std::vector<LogEntry> Assembler::take(Bytes bytes) {
  if (!awaits_) hole_.reset();
  const bool skip = std::exchange(skip_damaged_, false);
  const auto message = decoder_.decode(bytes);
  if (!message) {
    if (!skip) damaged(message.error().text);
    return {};
  }
  // Behind a piece whose beginning nobody has: with the entry that follows.
  const LogPosition begins = message->place.position + (message->place.offset > 0 ? 1 : 0);
  if (!next_) next_ = {message->epoch(), begins};
  if (next_->epoch != message->epoch()) {
    found(StreamHole::Kind::kOtherEpoch, *message);
    return {};
  }
  if (message->place.position > next_->position) {
    found(StreamHole::Kind::kMissing, *message);
    return {};
  }
  if (message->form == MessageForm::kPiece) return take_piece(*message);
  return take_entries(*message);
}

std::vector<LogEntry> Assembler::take_entries(const StreamMessage &message) {
  std::vector<LogEntry> entries;
  for (const LogEntry &entry : message.entries) {
    if (entry.position >= next_->position) entries.push_back(entry);
  }
  if (!entries.empty()) {
    next_->position = message.behind.position;
    pieces_.clear();
    wanted_came();
  }
  return entries;
}

std::vector<LogEntry> Assembler::take_piece(const StreamMessage &message) {
  if (message.place.position < next_->position) return {};
  const std::size_t have = pieces_.size();
  if (message.place.offset > have) {
    // The pieces before it are lost, and with them the entry.
    if (awaits_) return {};
    StreamHole hole{StreamHole::Kind::kMissing, *next_, *next_, ""};
    ++hole.found.position;
    hole.text = hole_text(hole);
    hole_ = std::move(hole);
    return {};
  }
  const std::size_t known = have - message.place.offset;
  if (known >= message.piece.size()) return {};
  const Bytes more = message.piece.subspan(known);
  pieces_.insert(pieces_.end(), more.begin(), more.end());
  wanted_came();
  if (pieces_.size() < message.whole) return {};
  whole_.swap(pieces_);
  pieces_.clear();
  const auto entry = parse_entry(whole_, next_->position);
  if (!entry) {
    damaged(entry.error().text);
    return {};
  }
  ++next_->position;
  return {*entry};
}

void Assembler::found(StreamHole::Kind kind, const StreamMessage &message) {
  if (awaits_ && kind == StreamHole::Kind::kMissing) return;
  StreamHole hole{kind, *next_, {message.epoch(), message.place.position}, ""};
  hole.text = hole_text(hole);
  stop_at(std::move(hole));
}

void Assembler::stop_at(StreamHole hole) {
  awaits_ = false;
  hole_ = std::move(hole);
}

void Assembler::wanted_came() {
  awaits_ = false;
  hole_.reset();
}

void Assembler::damaged(const std::string &why) {
  if (awaits_) return;
  StreamHole hole{StreamHole::Kind::kDamaged, next_.value_or(StreamPosition()), {}, ""};
  hole.found = hole.wanted;
  hole.text = hole_text(hole) + ": " + why;
  hole_ = std::move(hole);
}

void Assembler::go_on() {
  if (!hole_) return;
  awaits_ = false;
  pieces_.clear();
  if (hole_->kind == StreamHole::Kind::kDamaged) {
    // The next message says where the stream goes on.
    skip_damaged_ = true;
    next_.reset();
  } else {
    next_ = hole_->found;
  }
  hole_.reset();
}

}  // namespace tarn
