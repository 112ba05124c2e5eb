/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The bytes of a message that carries entries of a source's log to other hosts, the one encoder and
 * the one decoder of it. A message holds either whole entries that follow each other, or a piece of
 * one entry that is too large for a message. The decoder trusts no length, and accepts nothing that
 * differs from what was encoded.
 *
 *   message                                  entry, one behind the other
 *    0  8  magic "tarnmsg\n"                  0  8  time, CLOCK_REALTIME in nanoseconds
 *    8  8  checksum of all that follows       8  4  length of the payload
 *   16  4  version, 1                        12  1  kind, as in the log
 *   20  1  form: 1 entries, 2 a piece        13  3  zero
 *   21  1  packing: 0 none, 1 zstd           16  n  payload
 *   22  2  zero
 *   24 16  epoch: the UUID of the log
 *   40  8  position of the (first) entry
 *   48  4  entries: their number; a piece: its offset in the entry's bytes
 *   52  4  a piece: bytes of the whole entry; entries: zero
 *   56  4  bytes of the body before it was packed, at most 256 KiB
 *   60  4  run
 *   64  n  body, packed: entries, or a piece of an entry's bytes
 *
 * Integers are little-endian; the checksum is XXH3-64. Magic, checksum's place and version's place
 * stay in every version.
 *
 * The run is 0 until a log comes back shorter than what was sent of it (a restored backup). Then
 * the next run begins: its entries have positions that were given to others before. For receivers
 * epoch and run are one value (stream_epoch()), within which a position names one entry for ever.
 *
 * Plain values and functions, without locks. Errors: -EBADMSG; -EPROTO: of another version.
 */
#ifndef TARN_MIRRORD_STREAM_FORMAT_H
#define TARN_MIRRORD_STREAM_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/uuid.h"
#include "mirrord/log/log.h"

namespace tarn {

inline constexpr std::uint32_t kMessageVersion = 1;
inline constexpr std::size_t kMessageBodyMax = 256 << 10; /* before packing */

enum class MessageForm : std::uint8_t { kEntries = 1, kPiece = 2 };
enum class Packing : std::uint8_t { kNone = 0, kZstd = 1 };

struct MessageHeader {
  char magic[8];
  std::uint64_t checksum;
  std::uint32_t version;
  std::uint8_t form;
  std::uint8_t packing;
  std::uint8_t zero[2];
  std::uint8_t epoch[16];
  std::uint64_t position;
  std::uint32_t number; /* of entries, or the piece's offset */
  std::uint32_t whole;
  std::uint32_t body;
  std::uint32_t run;
};
static_assert(sizeof(MessageHeader) == 64);
static_assert(offsetof(MessageHeader, magic) == 0);
static_assert(offsetof(MessageHeader, checksum) == 8);
static_assert(offsetof(MessageHeader, version) == 16);
static_assert(offsetof(MessageHeader, form) == 20);
static_assert(offsetof(MessageHeader, packing) == 21);
static_assert(offsetof(MessageHeader, zero) == 22);
static_assert(offsetof(MessageHeader, epoch) == 24);
static_assert(offsetof(MessageHeader, position) == 40);
static_assert(offsetof(MessageHeader, number) == 48);
static_assert(offsetof(MessageHeader, whole) == 52);
static_assert(offsetof(MessageHeader, body) == 56);
static_assert(offsetof(MessageHeader, run) == 60);

struct MessageEntryHeader {
  std::int64_t time_ns;
  std::uint32_t length;
  std::uint8_t kind;
  std::uint8_t zero[3];
};
static_assert(sizeof(MessageEntryHeader) == 16);
static_assert(offsetof(MessageEntryHeader, time_ns) == 0);
static_assert(offsetof(MessageEntryHeader, length) == 8);
static_assert(offsetof(MessageEntryHeader, kind) == 12);
static_assert(offsetof(MessageEntryHeader, zero) == 13);

/* A place between two messages: the next one begins with this entry, at this byte of it. */
struct StreamPlace {
  LogPosition position = 1;
  std::uint32_t offset = 0;
  auto operator<=>(const StreamPlace &) const = default;
};

struct StreamMessage {
  MessageForm form = MessageForm::kEntries;
  Uuid log = {};
  std::uint32_t run = 0;
  StreamPlace place = {};             /* of its first byte */
  StreamPlace behind = {};            /* of the message that follows */
  std::vector<LogEntry> entries = {}; /* whole ones */
  std::uint32_t whole = 0;            /* of a piece: bytes of the entry */
  Bytes piece = {};

  Uuid epoch() const;
};

/* The log's epoch with the run in it. */
Uuid stream_epoch(const Uuid &log, std::uint32_t run);

/* Of a message: "EPOCH-POSITION", of a piece "EPOCH-POSITION/OFFSET". */
std::string message_id(const StreamMessage &message);

/* An entry's bytes, of which a message's body consists, are this and the payload. */
MessageEntryHeader entry_head(const LogEntry &entry);
/* The entry that `bytes`, all of it, is; its payload is a view into them. */
Result<LogEntry> parse_entry(Bytes bytes, LogPosition position);

/* Encodes `body`, which is what the message says (its entries' bytes, or its piece). With
 * Packing::kZstd a body that does not become smaller is left as it is. */
std::vector<std::byte> encode_message(const StreamMessage &message, std::uint32_t entries,
                                      Bytes body, Packing packing);

/* Puts the checksum into a message, which is not shorter than its header. */
void seal_message(std::span<std::byte> message);

class MessageDecoder {
 public:
  MessageDecoder();
  ~MessageDecoder();
  MessageDecoder(const MessageDecoder &) = delete;
  MessageDecoder &operator=(const MessageDecoder &) = delete;

  /* The views in the message are valid until the next call, and no longer than `bytes`. */
  Result<StreamMessage> decode(Bytes bytes);

 private:
  struct Unpacker;
  Result<Bytes> unpack(const MessageHeader &header, Bytes body);

  std::unique_ptr<Unpacker> unpacker_;
  std::vector<std::byte> unpacked_;
};

}  // namespace tarn

#endif
