// SPDX-License-Identifier: GPL-2.0
// Each kind's fields stand in one function, which both the encoder and the decoder run.
#include "mirrord/remote/protocol.h"

#include <algorithm>
#include <cerrno>
#include <concepts>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tarn::remote {
namespace {

constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kMayBeDirectory = 1, kRegularFile = 2;

class Encoder {
 public:
  static constexpr bool kReads = false;

  template <std::integral T>
  void number(const T &value) {
    auto rest = static_cast<std::uint64_t>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i, rest >>= 8)
      bytes_.push_back(static_cast<std::byte>(rest & 0xff));
  }
  void text(const std::string &value) { blob(std::as_bytes(std::span(value))); }
  void blob(const Bytes &value) {
    number(static_cast<std::uint32_t>(value.size()));
    bytes_.insert(bytes_.end(), value.begin(), value.end());
  }
  template <class Item, class Each>
  void list(const std::vector<Item> &items, Each each) {
    number(static_cast<std::uint32_t>(items.size()));
    for (const Item &item : items) each(item);
  }
  std::size_t size() const { return bytes_.size(); }
  std::vector<std::byte> end() {
    number(std::uint64_t{XXH3_64bits(bytes_.data(), bytes_.size())});
    return std::move(bytes_);
  }

 private:
  std::vector<std::byte> bytes_;
};

/* After a field that does not fit, all others are empty, and good() tells. */
class Decoder {
 public:
  static constexpr bool kReads = true;

  explicit Decoder(Bytes message) : rest_(message) {}

  template <std::integral T>
  void number(T &value) {
    std::uint64_t read = 0;
    const Bytes field = take(sizeof(T));
    for (std::size_t i = 0; i < field.size(); ++i)
      read |= static_cast<std::uint64_t>(field[i]) << (8 * i);
    value = static_cast<T>(read);
  }
  void text(std::string &value) {
    Bytes bytes;
    blob(bytes);
    value.assign(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  }
  void blob(Bytes &value) {
    std::uint32_t size = 0;
    number(size);
    value = take(size);
  }
  /* Each item takes a byte at least. */
  template <class Item, class Each>
  void list(std::vector<Item> &items, Each each) {
    std::uint32_t count = 0;
    number(count);
    if (count > rest_.size()) good_ = false;
    for (; count > 0 && good_; --count) each(items.emplace_back());
  }
  /* Takes the checksum, and tells whether it is right. */
  bool check(Bytes message) {
    if (message.size() < sizeof(std::uint64_t)) return false;
    const Bytes all = message.first(message.size() - sizeof(std::uint64_t));
    std::uint64_t sum = 0;
    Decoder(message.last(sizeof(sum))).number(sum);
    rest_ = rest_.first(rest_.size() - std::min(rest_.size(), sizeof(sum)));
    return sum == XXH3_64bits(all.data(), all.size());
  }
  void require(bool holds) { good_ = good_ && holds; }
  bool good() const { return good_; }
  bool done() const { return good_ && rest_.empty(); }

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

/* A field that is `T` here and `Wire` in the message. */
template <class Wire, class Coder, class T>
void as(Coder &coder, T &value) {
  auto wire = static_cast<Wire>(value);
  coder.number(wire);
  if constexpr (Coder::kReads) {
    value = static_cast<std::remove_const_t<T>>(wire);
    coder.require(std::cmp_equal(value, wire));
  }
}

template <class Coder>
void flag(Coder &coder, auto &value) {
  std::uint8_t wire = value ? 1 : 0;
  coder.number(wire);
  if constexpr (Coder::kReads) {
    value = wire == 1;
    coder.require(wire <= 1);
  }
}

template <class Coder>
void error_number(Coder &coder, auto &error) {
  as<std::int32_t>(coder, error);
  if constexpr (Coder::kReads) coder.require(error >= 0);
}

template <class Coder>
void time(Coder &coder, auto &time) {
  as<std::int64_t>(coder, time.tv_sec);
  as<std::int32_t>(coder, time.tv_nsec);
  if constexpr (Coder::kReads) coder.require(time.tv_nsec >= 0 && time.tv_nsec < 1'000'000'000);
}

template <class Coder>
void status(Coder &coder, auto &status) {
  as<std::uint32_t>(coder, status.st_mode);
  as<std::uint32_t>(coder, status.st_uid);
  as<std::uint32_t>(coder, status.st_gid);
  as<std::uint64_t>(coder, status.st_dev);
  as<std::uint64_t>(coder, status.st_ino);
  as<std::uint64_t>(coder, status.st_nlink);
  as<std::uint64_t>(coder, status.st_rdev);
  as<std::int64_t>(coder, status.st_size);
  as<std::int64_t>(coder, status.st_blocks);
  time(coder, status.st_atim);
  time(coder, status.st_mtim);
  time(coder, status.st_ctim);
  if constexpr (Coder::kReads) coder.require(status.st_size >= 0 && status.st_blocks >= 0);
}

template <class Coder>
void attributes(Coder &coder, auto &xattrs) {
  if constexpr (Coder::kReads) {
    std::uint32_t count = 0;
    for (coder.number(count); count > 0 && coder.good(); --count) {
      std::string name, value;
      coder.text(name);
      coder.text(value);
      coder.require(xattrs.empty() || xattrs.rbegin()->first < name);
      xattrs.emplace_hint(xattrs.end(), std::move(name), std::move(value));
    }
  } else {
    coder.number(static_cast<std::uint32_t>(xattrs.size()));
    for (const auto &[name, value] : xattrs) {
      coder.text(name);
      coder.text(value);
    }
  }
}

template <class Coder>
void object(Coder &coder, auto &object) {
  coder.number(object.device);
  coder.number(object.inode);
}

template <class Coder>
void found(Coder &coder, auto &found) {
  error_number(coder, found.error);
  if (found.error != 0) return;
  status(coder, found.status);
  coder.text(found.target);
  error_number(coder, found.xattrs_error);
  attributes(coder, found.xattrs);
}

template <class Coder>
void entry(Coder &coder, auto &entry) {
  coder.text(entry.name);
  as<std::uint64_t>(coder, entry.inode);
  std::uint8_t flags = 0;
  if constexpr (Coder::kReads) {
    coder.number(flags);
    entry.may_be_directory = (flags & kMayBeDirectory) != 0;
    entry.regular_file = (flags & kRegularFile) != 0;
    coder.require((flags & ~(kMayBeDirectory | kRegularFile)) == 0);
    coder.require(!entry.name.empty() && plain_relative(entry.name) &&
                  entry.name.find_first_of(std::string_view("/\0", 2)) == std::string::npos);
  } else {
    if (entry.may_be_directory) flags |= kMayBeDirectory;
    if (entry.regular_file) flags |= kRegularFile;
    coder.number(flags);
  }
}

/* The questions. `Fields` is the question or, for an encoder, a constant one. */
template <class Coder, class Fields>
void fields(Coder &coder, Fields &fields) {
  using Kind = std::remove_const_t<Fields>;
  if constexpr (std::is_same_v<Kind, StatusQuestion>) {
    coder.list(fields.paths, [&](auto &path) { coder.text(path); });
  } else if constexpr (std::is_same_v<Kind, ListQuestion>) {
    coder.text(fields.path);
    object(coder, fields.object);
    coder.text(fields.after);
  } else if constexpr (std::is_same_v<Kind, ReadQuestion>) {
    coder.text(fields.path);
    object(coder, fields.object);
    coder.number(fields.from);
    coder.number(fields.to);
  } else if constexpr (std::is_same_v<Kind, WalkQuestion>) {
    coder.text(fields.replica);
    coder.number(fields.since);
  } else if constexpr (std::is_same_v<Kind, ReportQuestion>) {
    coder.text(fields.replica);
    coder.text(fields.epoch);
    coder.text(fields.state);
    coder.text(fields.error);
    coder.number(fields.position);
    coder.number(fields.lag_entries);
    coder.number(fields.lag_bytes);
    coder.number(fields.lag_us);
    coder.number(fields.gaps);
  } else if constexpr (std::is_same_v<Kind, HashQuestion>) {
    coder.text(fields.path);
    coder.number(fields.from);
    coder.number(fields.to);
  } else if constexpr (std::is_same_v<Kind, HolesQuestion>) {
    coder.text(fields.path);
    coder.number(fields.from);
  } else if constexpr (std::is_same_v<Kind, HashAnswer>) {
    coder.number(fields.version.file_system);
    coder.number(fields.version.inode);
    coder.number(fields.version.seconds);
    coder.number(fields.version.nanoseconds);
    coder.list(fields.hashes, [&](auto &hash) {
      coder.number(hash.low);
      coder.number(hash.high);
    });
  } else if constexpr (std::is_same_v<Kind, HolesAnswer>) {
    flag(coder, fields.more);
    coder.list(fields.holes, [&](auto &hole) {
      coder.number(hole.offset);
      coder.number(hole.length);
      if constexpr (Coder::kReads)
        coder.require(hole.length > 0 && hole.length <= ~std::uint64_t{0} - hole.offset);
    });
  } else if constexpr (std::is_same_v<Kind, Failure>) {
    error_number(coder, fields.error);
    coder.text(fields.text);
    if constexpr (Coder::kReads) coder.require(fields.error != 0);
  } else if constexpr (std::is_same_v<Kind, StatusAnswer>) {
    coder.list(fields.found, [&](auto &item) { found(coder, item); });
  } else if constexpr (std::is_same_v<Kind, ListAnswer>) {
    flag(coder, fields.more);
    coder.list(fields.entries, [&](auto &item) { entry(coder, item); });
  } else if constexpr (std::is_same_v<Kind, ReadAnswer>) {
    status(coder, fields.before);
    status(coder, fields.after);
    error_number(coder, fields.xattrs_error);
    attributes(coder, fields.xattrs);
    coder.number(fields.end);
    std::uint64_t behind = 0;  // the piece before
    coder.list(fields.pieces, [&](auto &piece) {
      coder.number(piece.at);
      coder.blob(piece.data);
      if constexpr (Coder::kReads) {
        coder.require(piece.at >= behind && piece.at <= fields.end && !piece.data.empty() &&
                      piece.data.size() <= fields.end - piece.at);
        behind = piece.at + piece.data.size();
      }
    });
  } else if constexpr (std::is_same_v<Kind, MarkAnswer>) {
    coder.number(fields.number);
  } else if constexpr (std::is_same_v<Kind, AboutAnswer>) {
    coder.number(fields.run);
    coder.text(fields.directory);
    coder.list(fields.exclude, [&](auto &path) { coder.text(path); });
    if constexpr (Coder::kReads) {
      coder.require(fields.directory.starts_with('/'));
      for (const std::string &path : fields.exclude) coder.require(path.starts_with('/'));
    }
  } else if constexpr (std::is_same_v<Kind, AgainQuestion>) {
    coder.text(fields.epoch);
    coder.number(fields.position);
    coder.number(fields.seen);
  } else if constexpr (std::is_same_v<Kind, AgainAnswer>) {
    flag(coder, fields.coming);
  }
}

/* Makes the alternative of a variant that has this index. */
template <class Variant, std::size_t index = 0>
std::optional<Variant> alternative(std::size_t wanted) {
  if constexpr (index < std::variant_size_v<Variant>) {
    if (wanted == index) return Variant(std::in_place_index<index>);
    return alternative<Variant, index + 1>(wanted);
  }
  return std::nullopt;
}

Error malformed(const char *what) {
  return Error{-EBADMSG, fmt::format("{} about the source is malformed", what)};
}

/* The version and the kind. */
template <class Variant>
Result<Variant> begin(Decoder &decoder, Bytes message, std::size_t first_kind, const char *what) {
  std::uint8_t version = 0, kind = 0;
  decoder.number(version);
  if (decoder.good() && version != kVersion)
    return Error{-EPROTONOSUPPORT,
                 fmt::format("{} about the source has version {}, not {}: install the same version "
                             "of mirrord on both hosts",
                             what, version, kVersion)};
  decoder.number(kind);
  if (!decoder.good() || kind < first_kind || !decoder.check(message)) return malformed(what);
  auto made = alternative<Variant>(kind - first_kind);
  if (!made) return malformed(what);
  return std::move(*made);
}

}  // namespace

std::vector<std::byte> encode(const NumberedQuestion &question) {
  Encoder encoder;
  encoder.number(kVersion);
  encoder.number(static_cast<std::uint8_t>(question.question.index() + 1));
  encoder.number(question.number);
  std::visit([&](const auto &kind) { fields(encoder, kind); }, question.question);
  return encoder.end();
}

std::vector<std::byte> encode(const NumberedAnswer &answer) {
  Encoder encoder;
  encoder.number(kVersion);
  encoder.number(static_cast<std::uint8_t>(answer.answer.index()));
  encoder.number(answer.number);
  encoder.number(answer.now);
  std::visit([&](const auto &kind) { fields(encoder, kind); }, answer.answer);
  return encoder.end();
}

std::size_t size_of(const Found &item) {
  Encoder encoder;
  found(encoder, item);
  return encoder.size();
}

std::size_t size_of(const DirectoryEntry &item) {
  Encoder encoder;
  entry(encoder, item);
  return encoder.size();
}

Result<NumberedQuestion> decode_question(Bytes message) {
  Decoder decoder(message);
  auto kind = begin<Question>(decoder, message, 1, "a question");
  if (!kind) return kind.error();
  NumberedQuestion question{0, std::move(*kind)};
  decoder.number(question.number);
  std::visit([&](auto &into) { fields(decoder, into); }, question.question);
  if (!decoder.done()) return malformed("a question");
  return question;
}

Result<NumberedAnswer> decode_answer(Bytes message) {
  Decoder decoder(message);
  auto kind = begin<Answer>(decoder, message, 0, "an answer");
  if (!kind) return kind.error();
  NumberedAnswer answer{0, 0, std::move(*kind)};
  decoder.number(answer.number);
  decoder.number(answer.now);
  std::visit([&](auto &into) { fields(decoder, into); }, answer.answer);
  if (!decoder.done()) return malformed("an answer");
  return answer;
}

}  // namespace tarn::remote
