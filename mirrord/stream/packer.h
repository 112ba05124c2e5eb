/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes messages (format.h) of entries: small ones together, a large one in pieces. One thread.
 */
#ifndef TARN_MIRRORD_STREAM_PACKER_H
#define TARN_MIRRORD_STREAM_PACKER_H

#include <string>
#include <vector>

#include "mirrord/stream/format.h"

namespace tarn {

struct PackedMessage {
  std::string id = {};
  StreamPlace behind = {}; /* where the next message begins */
  std::vector<std::byte> bytes = {};
};

class Packer {
 public:
  /* A message has at most `message_max` bytes, which are more than those of its header. */
  Packer(const Uuid &log, std::uint32_t run, std::size_t message_max, Packing packing);

  bool empty() const { return entries_ == 0; }
  /* False: it does not follow what was added, or there is no room for it; in an empty message: it
   * needs pieces. */
  bool add(const LogEntry &entry);
  /* What was added; the next message is empty. */
  PackedMessage take();

  /* A piece of an entry that begins at `offset` of its bytes. */
  PackedMessage piece(const LogEntry &entry, std::uint32_t offset);

 private:
  PackedMessage finish(StreamMessage &message, Bytes body);

  const Uuid log_;
  const std::uint32_t run_;
  const std::size_t body_max_;
  const Packing packing_;
  LogPosition first_ = 0;
  std::uint32_t entries_ = 0;
  std::vector<std::byte> body_;
};

}  // namespace tarn

#endif
