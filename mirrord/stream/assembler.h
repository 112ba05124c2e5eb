/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes entries of messages again, in order: each position once, and none behind a hole. What comes
 * twice is dropped. A hole stops it until go_on() or await() is called. One thread.
 *
 * Holds at most one entry that came in pieces, 64 MiB, as much of it as has come.
 */
#ifndef TARN_MIRRORD_STREAM_ASSEMBLER_H
#define TARN_MIRRORD_STREAM_ASSEMBLER_H

#include <optional>
#include <string>
#include <vector>

#include "mirrord/stream/format.h"

namespace tarn {

/* The next entry that is wanted. */
struct StreamPosition {
  Uuid epoch = {}; /* stream_epoch() */
  LogPosition position = 1;
  bool operator==(const StreamPosition &) const = default;
};

/* What is missing in the stream. */
struct StreamHole {
  enum class Kind {
    kMissing,    /* entries from `wanted` up to the one before `found` */
    kOtherEpoch, /* all that came behind `wanted` in its epoch */
    kDamaged,    /* at least the entry `wanted`, and it is not known where it ends */
  };
  Kind kind = Kind::kMissing;
  StreamPosition wanted = {};
  StreamPosition found = {}; /* where the stream goes on; of a damaged message: `wanted` */
  std::string text = {};     /* one line: what is missing */
};

class Assembler {
 public:
  /* Nothing: the first whole entry that comes is the first one. */
  explicit Assembler(std::optional<StreamPosition> next) : next_(next) {}

  const std::optional<StreamPosition> &next() const { return next_; }
  const std::optional<StreamHole> &hole() const { return hole_; }
  bool stopped() const { return hole_ && !awaits_; }
  bool awaits() const { return awaits_; }
  /* Has a part of the entry at next() come? */
  bool partial() const { return !pieces_.empty(); }

  /*
   * The message's entries that are new, often none; views that are valid until the next call, and
   * no longer than `bytes`. With stopped() afterwards the message was not taken: give it again
   * after go_on() or await().
   */
  std::vector<LogEntry> take(Bytes bytes);

  /* Declares a hole that was found without a message. */
  void stop_at(StreamHole hole);

  /* What is missing may still come. */
  void forget_hole() { hole_.reset(); }

  /* What is missing comes further on in the stream: what lies before it there is passed over, until
   * it comes or another epoch begins. */
  void await() { awaits_ = hole_.has_value(); }

  /* Goes on behind the hole, which the caller has taken care of. */
  void go_on();

 private:
  std::vector<LogEntry> take_entries(const StreamMessage &message);
  std::vector<LogEntry> take_piece(const StreamMessage &message);
  void found(StreamHole::Kind kind, const StreamMessage &message);
  void damaged(const std::string &why);
  void wanted_came();

  std::optional<StreamPosition> next_;
  std::optional<StreamHole> hole_;
  bool awaits_ = false; /* what hole_ says */
  MessageDecoder decoder_;
  std::vector<std::byte> pieces_; /* of the entry at next_ */
  std::vector<std::byte> whole_;  /* the one that take() returned */
  bool skip_damaged_ = false;     /* go_on() was called for a damaged message */
};

/* One line that says what is missing. */
std::string hole_text(const StreamHole &hole);

}  // namespace tarn

#endif
