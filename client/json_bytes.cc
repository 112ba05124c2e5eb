// SPDX-License-Identifier: GPL-2.0
#include "client/json_bytes.h"

#include "base/text.h"
#include "client/base64.h"

namespace tarn {

nlohmann::ordered_json json_bytes(std::string_view bytes) {
  if (valid_utf8(bytes)) return std::string(bytes);
  return {{"base64", base64_encode(bytes)}};
}

}  // namespace tarn
