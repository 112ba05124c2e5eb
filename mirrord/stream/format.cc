// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/format.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

#include <fmt/format.h>
#include <zstd.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "mirrord/log/format.h"

namespace tarn {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr char kMagic[sizeof(MessageHeader::magic)] = {'t', 'a', 'r', 'n', 'm', 's', 'g', '\n'};
constexpr std::size_t kChecked = offsetof(MessageHeader, version);
constexpr std::uint32_t kWholeMax = sizeof(MessageEntryHeader) + kPayloadMax;
/* No log comes here; what follows a position can be computed. */
constexpr LogPosition kPositionMax = std::numeric_limits<LogPosition>::max() / 2;
constexpr int kZstdLevel = 1;

Error malformed(const std::string &what) {
  return Error{-EBADMSG, "a message of the stream is malformed: " + what};
}

template <class T>
Bytes bytes_of(const T &value) {
  return std::as_bytes(std::span(&value, 1));
}

void append(std::vector<std::byte> &to, Bytes bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

Result<MessageHeader> checked_header(Bytes bytes) {
  MessageHeader header;
  if (bytes.size() < sizeof(header)) return malformed("it is too short");
  std::memcpy(&header, bytes.data(), sizeof(header));
  if (std::memcmp(header.magic, kMagic, sizeof(kMagic)) != 0)
    return malformed("it carries no entries of a log");
  if (header.version != kMessageVersion)
    return Error{-EPROTO, fmt::format("a message of the stream has version {}, and this program "
                                      "reads version {}: update the older of the two",
                                      header.version, kMessageVersion)};
  const Bytes checked = bytes.subspan(kChecked);
  if (header.checksum != XXH3_64bits(checked.data(), checked.size()))
    return malformed("its checksum is wrong");
  if (header.zero[0] != 0 || header.zero[1] != 0) return malformed("a field is not zero");
  if (header.position == 0 || header.position > kPositionMax)
    return malformed("its position cannot be");
  if (header.body == 0 || header.body > kMessageBodyMax) return malformed("its length cannot be");
  return header;
}

Result<void> read_entries(const MessageHeader &header, Bytes body, StreamMessage &message) {
  if (header.whole != 0) return malformed("a field is not zero");
  if (header.number == 0 || header.number > body.size() / sizeof(MessageEntryHeader))
    return malformed("its number of entries cannot be");
  message.entries.reserve(header.number);
  for (std::uint32_t i = 0; i < header.number; ++i) {
    MessageEntryHeader entry;
    if (body.size() < sizeof(entry)) return malformed("an entry is cut off");
    std::memcpy(&entry, body.data(), sizeof(entry));
    if (entry.length > body.size() - sizeof(entry)) return malformed("an entry is cut off");
    const Bytes bytes = body.first(sizeof(entry) + entry.length);
    const auto parsed = parse_entry(bytes, header.position + i);
    if (!parsed) return parsed.error();
    message.entries.push_back(*parsed);
    body = body.subspan(bytes.size());
  }
  if (!body.empty()) return malformed("there is more in it than its entries");
  message.behind = {header.position + header.number, 0};
  return {};
}

Result<void> read_piece(const MessageHeader &header, Bytes body, StreamMessage &message) {
  if (header.whole <= sizeof(MessageEntryHeader) || header.whole > kWholeMax)
    return malformed("the size of its entry cannot be");
  if (header.number >= header.whole || body.size() > header.whole - header.number)
    return malformed("it is no piece of its entry");
  const auto end = header.number + static_cast<std::uint32_t>(body.size());
  message.place.offset = header.number;
  message.whole = header.whole;
  message.piece = body;
  message.behind =
      end == header.whole ? StreamPlace{header.position + 1, 0} : StreamPlace{header.position, end};
  return {};
}

/* Empty if it would not be smaller. */
std::vector<std::byte> packed(Bytes body) {
  std::vector<std::byte> to(body.size() - 1);
  const std::size_t size =
      ZSTD_compress(to.data(), to.size(), body.data(), body.size(), kZstdLevel);
  to.resize(ZSTD_isError(size) ? 0 : size);
  return to;
}

}  // namespace

struct MessageDecoder::Unpacker {
  ZSTD_DCtx *const context = ZSTD_createDCtx();
  Unpacker() = default;
  Unpacker(const Unpacker &) = delete;
  Unpacker &operator=(const Unpacker &) = delete;
  ~Unpacker() { ZSTD_freeDCtx(context); }
};

MessageDecoder::MessageDecoder() : unpacker_(std::make_unique<Unpacker>()) {}
MessageDecoder::~MessageDecoder() = default;

Uuid StreamMessage::epoch() const {
  return stream_epoch(log, run);
}

Uuid stream_epoch(const Uuid &log, std::uint32_t run) {
  Uuid epoch = log;
  for (int i = 0; i < 4; ++i) epoch.bytes[12 + i] ^= static_cast<std::uint8_t>(run >> 8 * i);
  return epoch;
}

std::string message_id(const StreamMessage &message) {
  const std::string id = fmt::format("{}-{}", to_string(message.epoch()), message.place.position);
  if (message.form == MessageForm::kEntries) return id;
  return fmt::format("{}/{}", id, message.place.offset);
}

MessageEntryHeader entry_head(const LogEntry &entry) {
  MessageEntryHeader header = {};
  header.time_ns = entry.time_ns;
  header.length = static_cast<std::uint32_t>(entry.payload.size());
  header.kind = entry.kind;
  return header;
}

Result<LogEntry> parse_entry(Bytes bytes, LogPosition position) {
  MessageEntryHeader header;
  if (bytes.size() < sizeof(header)) return malformed("an entry is too short");
  std::memcpy(&header, bytes.data(), sizeof(header));
  if (header.length != bytes.size() - sizeof(header))
    return malformed("an entry's length is wrong");
  if (std::any_of(std::begin(header.zero), std::end(header.zero), [](auto c) { return c != 0; }))
    return malformed("a field of an entry is not zero");
  return LogEntry{position, header.time_ns, header.kind, bytes.subspan(sizeof(header))};
}

void seal_message(std::span<std::byte> message) {
  const Bytes checked = message.subspan(kChecked);
  const std::uint64_t checksum = XXH3_64bits(checked.data(), checked.size());
  std::memcpy(message.data() + offsetof(MessageHeader, checksum), &checksum, sizeof(checksum));
}

std::vector<std::byte> encode_message(const StreamMessage &message, std::uint32_t entries,
                                      Bytes body, Packing packing) {
  MessageHeader header = {};
  std::memcpy(header.magic, kMagic, sizeof(kMagic));
  header.version = kMessageVersion;
  header.form = static_cast<std::uint8_t>(message.form);
  std::copy(message.log.bytes.begin(), message.log.bytes.end(), header.epoch);
  header.position = message.place.position;
  header.number = message.form == MessageForm::kEntries ? entries : message.place.offset;
  header.whole = message.whole;
  header.body = static_cast<std::uint32_t>(body.size());
  header.run = message.run;
  std::vector<std::byte> smaller;
  if (packing == Packing::kZstd) smaller = packed(body);
  if (!smaller.empty()) {
    header.packing = static_cast<std::uint8_t>(Packing::kZstd);
    body = smaller;
  }
  std::vector<std::byte> bytes;
  bytes.reserve(sizeof(header) + body.size());
  append(bytes, bytes_of(header));
  append(bytes, body);
  seal_message(bytes);
  return bytes;
}

Result<Bytes> MessageDecoder::unpack(const MessageHeader &header, Bytes body) {
  if (header.packing == static_cast<std::uint8_t>(Packing::kNone)) {
    if (body.size() != header.body) return malformed("its length is wrong");
    return body;
  }
  if (header.packing != static_cast<std::uint8_t>(Packing::kZstd))
    return malformed("its packing is unknown");
  // Never more than the header says, which is bounded, whatever the packed bytes say.
  if (!unpacker_->context) return Error{-ENOMEM, "no memory to unpack a message of the stream"};
  unpacked_.resize(header.body);
  const std::size_t size = ZSTD_decompressDCtx(unpacker_->context, unpacked_.data(),
                                               unpacked_.size(), body.data(), body.size());
  if (ZSTD_isError(size) || size != header.body) return malformed("it cannot be unpacked");
  return Bytes(unpacked_);
}

Result<StreamMessage> MessageDecoder::decode(Bytes bytes) {
  const auto header = checked_header(bytes);
  if (!header) return header.error();
  const auto body = unpack(*header, bytes.subspan(sizeof(MessageHeader)));
  if (!body) return body.error();
  StreamMessage message;
  message.form = static_cast<MessageForm>(header->form);
  std::copy(std::begin(header->epoch), std::end(header->epoch), message.log.bytes.begin());
  message.run = header->run;
  message.place.position = header->position;
  Result<void> read = malformed("its form is unknown");
  if (message.form == MessageForm::kEntries) read = read_entries(*header, *body, message);
  if (message.form == MessageForm::kPiece) read = read_piece(*header, *body, message);
  if (!read) return read.error();
  return message;
}

}  // namespace tarn
