/* SPDX-License-Identifier: GPL-2.0 */
/* Base64 with the standard alphabet and padding, as rule texts carry it. */
#ifndef TARN_CLIENT_BASE64_H
#define TARN_CLIENT_BASE64_H

#include <optional>
#include <string>
#include <string_view>

namespace tarn {

std::string base64_encode(std::string_view bytes);

/* Nothing if the text is not valid, padded Base64. */
std::optional<std::string> base64_decode(std::string_view text);

}  // namespace tarn

#endif
