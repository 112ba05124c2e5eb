// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/log_entries.h"

#include <cerrno>
#include <concepts>

namespace tarn {
namespace {

class Encoder {
 public:
  template <std::integral T>
  Encoder &put(T value) {
    auto rest = static_cast<std::uint64_t>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i, rest >>= 8)
      bytes_.push_back(static_cast<std::byte>(rest & 0xff));
    return *this;
  }
  Encoder &put(const std::string &text) {
    put(static_cast<std::uint32_t>(text.size()));
    for (const char c : text) bytes_.push_back(static_cast<std::byte>(c));
    return *this;
  }
  std::vector<std::byte> take() { return std::move(bytes_); }

 private:
  std::vector<std::byte> bytes_;
};

/* After a field that does not fit, all others are empty, and end() tells. */
class Decoder {
 public:
  explicit Decoder(Bytes bytes) : rest_(bytes) {}

  template <std::integral T>
  T get() {
    const Bytes field = take(sizeof(T));
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < field.size(); ++i)
      value |= static_cast<std::uint64_t>(field[i]) << (8 * i);
    return static_cast<T>(value);
  }
  std::string text() {
    const Bytes field = take(get<std::uint32_t>());
    return {reinterpret_cast<const char *>(field.data()), field.size()};
  }
  bool flag() {
    const auto value = get<std::uint8_t>();
    good_ = good_ && value <= 1;
    return value == 1;
  }
  template <class T>
  Result<T> end(T entry, const char *what) const {
    if (good_ && rest_.empty()) return entry;
    return Error{-EBADMSG, std::string("a ") + what + " entry of the log is malformed"};
  }

 private:
  Bytes take(std::size_t size) {
    if (!good_ || size > rest_.size()) {
      good_ = false;
      return {};
    }
    const Bytes field = rest_.first(size);
    rest_ = rest_.subspan(size);
    return field;
  }

  Bytes rest_;
  bool good_ = true;
};

}  // namespace

std::vector<std::byte> encode(const GapEntry &entry) {
  return Encoder().put(entry.since).put(entry.reason).take();
}
std::vector<std::byte> encode(const MarkEntry &entry) {
  return Encoder().put(entry.number).put(entry.until).take();
}
std::vector<std::byte> encode(const WalkBeginEntry &entry) {
  return Encoder().put(entry.walk).put(entry.since).put(entry.target).take();
}
std::vector<std::byte> encode(const LookEntry &entry) {
  return Encoder().put(entry.walk).put(entry.done).put(entry.directory).take();
}
std::vector<std::byte> encode(const WalkEndEntry &entry) {
  return Encoder().put(entry.walk).put(static_cast<std::uint8_t>(entry.complete)).take();
}
std::vector<std::byte> encode(const JoinEntry &entry) {
  Encoder encoder;
  for (const std::uint8_t byte : entry.epoch.bytes) encoder.put(byte);
  return encoder.put(entry.position)
      .put(static_cast<std::uint8_t>(entry.missing))
      .put(entry.reason)
      .take();
}

Result<GapEntry> decode_gap(Bytes payload) {
  Decoder decoder(payload);
  GapEntry entry;
  entry.since = decoder.get<std::int64_t>();
  entry.reason = decoder.text();
  return decoder.end(std::move(entry), "gap");
}
Result<MarkEntry> decode_mark(Bytes payload) {
  Decoder decoder(payload);
  MarkEntry entry;
  entry.number = decoder.get<std::uint64_t>();
  entry.until = decoder.get<std::int64_t>();
  return decoder.end(entry, "mark");
}
Result<WalkBeginEntry> decode_walk_begin(Bytes payload) {
  Decoder decoder(payload);
  WalkBeginEntry entry;
  entry.walk = decoder.get<std::uint64_t>();
  entry.since = decoder.get<std::int64_t>();
  entry.target = decoder.text();
  return decoder.end(std::move(entry), "walk begin");
}
Result<LookEntry> decode_look(Bytes payload) {
  Decoder decoder(payload);
  LookEntry entry;
  entry.walk = decoder.get<std::uint64_t>();
  entry.done = decoder.get<std::uint32_t>();
  entry.directory = decoder.text();
  return decoder.end(std::move(entry), "look");
}
Result<WalkEndEntry> decode_walk_end(Bytes payload) {
  Decoder decoder(payload);
  WalkEndEntry entry;
  entry.walk = decoder.get<std::uint64_t>();
  entry.complete = decoder.flag();
  return decoder.end(entry, "walk end");
}
Result<JoinEntry> decode_join(Bytes payload) {
  Decoder decoder(payload);
  JoinEntry entry;
  for (std::uint8_t &byte : entry.epoch.bytes) byte = decoder.get<std::uint8_t>();
  entry.position = decoder.get<std::uint64_t>();
  entry.missing = decoder.flag();
  entry.reason = decoder.text();
  return decoder.end(std::move(entry), "join");
}

}  // namespace tarn
