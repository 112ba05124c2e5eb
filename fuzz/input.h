/* SPDX-License-Identifier: GPL-2.0 */
/* Reads a fuzzer's input field by field; behind its end everything is zero. */
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

class Input {
 public:
  Input(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return size_ == 0; }
  unsigned u8() { return number(1); }
  unsigned u16() { return number(2); }
  unsigned u32() { return number(4); }
  /* At most `most` bytes of what is left, as a length byte pair asks. */
  std::string bytes(std::size_t most = 65535) { return take(std::min<std::size_t>(u16(), most)); }
  std::string rest() { return take(size_); }

 private:
  unsigned number(int width) {
    unsigned value = 0;
    for (int i = 0; i < width && size_ > 0; ++i, ++data_, --size_)
      value |= unsigned{*data_} << 8 * i;
    return value;
  }
  std::string take(std::size_t count) {
    count = std::min(count, size_);
    std::string out(reinterpret_cast<const char *>(data_), count);
    data_ += count;
    size_ -= count;
    return out;
  }

  const std::uint8_t *data_;
  std::size_t size_;
};

}  // namespace fuzz

#endif
