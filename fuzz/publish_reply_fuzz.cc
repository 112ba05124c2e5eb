// SPDX-License-Identifier: GPL-2.0
// Any bytes are an answer to a published message, or refused in one line.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mirrord/stream/publish_reply.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const auto number =
      tarn::parse_publish_reply(std::string_view(reinterpret_cast<const char *>(data), size));
  if (number) return 0;
  const int code = number.error().code;
  const std::string &text = number.error().text;
  const bool known = code == -EAGAIN || code == -ENOSPC || code == -EIO;
  if (!known || text.empty() || text.find('\n') != std::string::npos) std::abort();
  return 0;
}
