/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Fields of entries and messages as bytes: integers are little-endian, a blob is its length (4
 * bytes) and its bytes. The reader trusts no length.
 */
#ifndef TARN_MIRRORD_BYTE_FIELDS_H
#define TARN_MIRRORD_BYTE_FIELDS_H

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tarn {

class FieldWriter {
 public:
  template <std::integral T>
  FieldWriter &put(T value) {
    auto rest = static_cast<std::uint64_t>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i, rest >>= 8)
      bytes_.push_back(static_cast<std::byte>(rest & 0xff));
    return *this;
  }
  FieldWriter &put_blob(std::span<const std::byte> blob) {
    put(static_cast<std::uint32_t>(blob.size()));
    bytes_.insert(bytes_.end(), blob.begin(), blob.end());
    return *this;
  }
  FieldWriter &put_text(const std::string &text) {
    return put_blob(std::as_bytes(std::span(text)));
  }

  const std::vector<std::byte> &bytes() const { return bytes_; }
  std::vector<std::byte> take() { return std::move(bytes_); }

 private:
  std::vector<std::byte> bytes_;
};

/* After a field that does not fit, all others are empty, and good() tells. Does not own the bytes.
 */
class FieldReader {
 public:
  using Bytes = std::span<const std::byte>;
  explicit FieldReader(Bytes bytes) : rest_(bytes) {}

  template <std::integral T>
  T get() {
    std::uint64_t value = 0;
    const Bytes field = take(sizeof(T));
    for (std::size_t i = 0; i < field.size(); ++i)
      value |= static_cast<std::uint64_t>(field[i]) << (8 * i);
    return static_cast<T>(value);
  }
  Bytes get_blob() { return take(get<std::uint32_t>()); }
  std::string get_text() {
    const Bytes blob = get_blob();
    return {reinterpret_cast<const char *>(blob.data()), blob.size()};
  }

  void require(bool holds) { good_ = good_ && holds; }
  bool good() const { return good_; }
  /* Is nothing left? */
  bool done() const { return good_ && rest_.empty(); }
  std::size_t left() const { return rest_.size(); }

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

}  // namespace tarn

#endif
