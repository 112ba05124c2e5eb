/* SPDX-License-Identifier: GPL-2.0 */
/* Paths in JSON: a path may contain any byte but NUL, JSON only UTF-8. */
#ifndef TARN_CLIENT_JSON_BYTES_H
#define TARN_CLIENT_JSON_BYTES_H

#include <string_view>

#include <nlohmann/json.hpp>

namespace tarn {

/* A JSON string if the bytes are UTF-8, otherwise the object {"base64": "..."}. */
nlohmann::ordered_json json_bytes(std::string_view bytes);

}  // namespace tarn

#endif
