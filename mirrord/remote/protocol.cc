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

#include "mirrord/byte_fields.h"

namespace tarn::remote {
namespace {

constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kMayBeDirectory = 1, kRegularFile = 2;

class Encoder {
 public:
  static constexpr bool kReads = false;

  template <std::integral T>
  void number(const T &value) {
    writer_.put(value);
  }
  void text(const std::string &value) { writer_.put_text(value); }
  void blob(const Bytes &value) { writer_.put_blob(value); }
  template <class Item, class Each>
  void list(const std::vector<Item> &items, Each each) {
    number(static_cast<std::uint32_t>(items.size()));
    for (const Item &item : items) each(item);
  }
  std::size_t size() const { return writer_.bytes().size(); }
  std::vector<std::byte> end() {
    number(std::uint64_t{XXH3_64bits(writer_.bytes().data(), size())});
    return writer_.take();
  }

 private:
  FieldWriter writer_;
};

class Decoder {
 public:
  static constexpr bool kReads = true;

  /* What is not a whole message with the right checksum has no fields but its first ones. */
  explicit Decoder(Bytes message) : reader_(body_of(message)), intact_(is_intact(message)) {}

  template <std::integral T>
  void number(T &value) {
    value = reader_.get<T>();
  }
  void text(std::string &value) { value = reader_.get_text(); }
  void blob(Bytes &value) { value = reader_.get_blob(); }
  /* Each item takes a byte at least. */
  template <class Item, class Each>
  void list(std::vector<Item> &items, Each each) {
    std::uint32_t count = 0;
    number(count);
    require(count <= reader_.left());
    for (; count > 0 && good(); --count) each(items.emplace_back());
  }
  bool intact() const { return intact_; }
  void require(bool holds) { reader_.require(holds); }
  bool good() const { return reader_.good(); }
  bool done() const { return reader_.done(); }

 private:
  static Bytes body_of(Bytes message) {
    return message.first(message.size() - std::min(message.size(), sizeof(std::uint64_t)));
  }
  static bool is_intact(Bytes message) {
    const Bytes body = body_of(message);
    const auto sum = FieldReader(message.subspan(body.size())).get<std::uint64_t>();
    return message.size() >= sizeof(sum) && sum == XXH3_64bits(body.data(), body.size());
  }

  FieldReader reader_;
  bool intact_;
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
Result<Variant> begin(Decoder &decoder, std::size_t first_kind, const char *what) {
  std::uint8_t version = 0, kind = 0;
  decoder.number(version);
  if (decoder.good() && version != kVersion)
    return Error{-EPROTONOSUPPORT,
                 fmt::format("{} about the source has version {}, not {}: install the same version "
                             "of mirrord on both hosts",
                             what, version, kVersion)};
  decoder.number(kind);
  if (!decoder.good() || kind < first_kind || !decoder.intact()) return malformed(what);
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
  auto kind = begin<Question>(decoder, 1, "a question");
  if (!kind) return kind.error();
  NumberedQuestion question{0, std::move(*kind)};
  decoder.number(question.number);
  std::visit([&](auto &into) { fields(decoder, into); }, question.question);
  if (!decoder.done()) return malformed("a question");
  return question;
}

Result<NumberedAnswer> decode_answer(Bytes message) {
  Decoder decoder(message);
  auto kind = begin<Answer>(decoder, 0, "an answer");
  if (!kind) return kind.error();
  NumberedAnswer answer{0, 0, std::move(*kind)};
  decoder.number(answer.number);
  decoder.number(answer.now);
  std::visit([&](auto &into) { fields(decoder, into); }, answer.answer);
  if (!decoder.done()) return malformed("an answer");
  return answer;
}

}  // namespace tarn::remote
