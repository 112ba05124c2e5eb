// SPDX-License-Identifier: GPL-2.0
// Base64 against a second codec, with buffers that end where they say they end.
// Input: how much room there is, then the bytes.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_kernel.h"
#include "fuzz/input.h"
#include "fuzz/uk_fuzz.h"
#include "tests/oracle/plain_rules.h"

namespace {

using fuzz::check;
using fuzz::check_equal;

struct Result {
  bool ok;
  std::string bytes;
  int size;        /* as the call left it */
  bool terminated; /* with a NUL behind the bytes */
};

template <class Call>
Result call_with(int room, Call call) {
  const std::unique_ptr<char[]> out(new char[static_cast<std::size_t>(room)]);
  std::fill_n(out.get(), room, '?');
  int size = room;
  if (!call(out.get(), &size)) return {false, "", size, false};
  check(size >= 0 && size <= room, "a size within the room");
  const std::string bytes(out.get(), static_cast<std::size_t>(size));
  return {true, bytes, size, size < room && out[static_cast<std::size_t>(size)] == '\0'};
}

Result encode(const std::string &in, int room, int crlf) {
  const std::vector<char> exact(in.begin(), in.end());
  return call_with(room, [&](char *out, int *size) {
    return uk_fuzz_base64_encode(exact.data(), static_cast<int>(exact.size()), out, size, crlf);
  });
}

Result decode(const std::string &in, int room) {
  const std::vector<char> exact(in.begin(), in.end());
  return call_with(room, [&](char *out, int *size) {
    return uk_fuzz_base64_decode(exact.data(), static_cast<int>(exact.size()), out, size);
  });
}

/* Lines of 76 characters, with a line end between two of them. */
std::string in_lines(const std::string &text) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); at += 76)
    out += (at ? "\r\n" : "") + text.substr(at, 76);
  return out;
}

void check_encoder(const std::string &bytes, int spare) {
  for (const int crlf : {0, 1}) {
    const std::string plain = oracle::base64_encode(bytes);
    const std::string expected = crlf ? in_lines(plain) : plain;
    const int length = static_cast<int>(expected.size());
    check_equal(uk_fuzz_base64_encode_len(static_cast<int>(bytes.size()), crlf), length, "length");
    const Result result = encode(bytes, length + spare, crlf);
    check(result.ok && result.bytes == expected, "the encoded text");
    check_equal(result.terminated, spare > 0, "a NUL where there is room");
    if (length > 0) check(!encode(bytes, length - 1, crlf).ok, "no room, no text");
    const Result back = decode(result.bytes, uk_fuzz_base64_decode_len(length) + 1);
    check(back.ok && back.bytes == bytes, "there and back");
  }
}

void check_decoder(const std::string &text, int spare) {
  const int most = uk_fuzz_base64_decode_len(static_cast<int>(text.size()));
  const Result tight = decode(text, most);
  check(!tight.ok && tight.size == most, "no room for the NUL, nothing decoded");
  const oracle::Decoded expected = oracle::base64_decode(text);
  const Result result = decode(text, most + 1 + spare);
  check_equal(result.ok, expected.ok, "whether it decodes");
  if (!result.ok) return check_equal(result.size, most + 1 + spare, "the size after a failure");
  check(result.bytes == expected.bytes, "the decoded bytes");
  check(result.terminated, "a NUL behind the bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Kernel &kernel = fuzz::Kernel::get();
  fuzz::Input input(data, size);
  const int spare = static_cast<int>(input.u8() % 4);
  const std::string bytes = input.rest();
  check_encoder(bytes, spare);
  check_decoder(bytes, spare);
  kernel.check_leaks();
  return 0;
}
