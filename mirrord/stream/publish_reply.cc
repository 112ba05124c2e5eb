// SPDX-License-Identifier: GPL-2.0
#include "mirrord/stream/publish_reply.h"

#include <cerrno>
#include <string>

#include <fmt/format.h>
#include <nats/status.h>
#include <nlohmann/json.hpp>

#include "base/text.h"

namespace tarn {
namespace {

using nlohmann::json;

constexpr std::size_t kReplyMax = 16 << 10;

const json *member(const json &object, const char *key) {
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

Error refused(const json &error) {
  const json *code = member(error, "err_code");
  const json *text = member(error, "description");
  const int number = code && code->is_number_integer() ? code->get<int>() : 0;
  const std::string why = text && text->is_string()
                              ? escape_controls(text->get_ref<const std::string &>())
                              : std::string("without a reason");
  switch (number) {
    case JSStreamWrongLastMsgIDErr:
    case JSStreamWrongLastSequenceErr:
      return Error{-EAGAIN, fmt::format("a message was refused: {}; it is looked at anew", why)};
    case JSInsufficientResourcesErr:
    case JSStorageResourcesExceededErr:
    case JSStreamStoreFailedErr:
    case JSAccountResourcesExceededErr:
      return Error{-ENOSPC,
                   fmt::format("it is full: {}; replicas that are behind, or that are gone "
                               "for good, fill it: retire these, or raise 'max-bytes'",
                               why)};
    case JSStreamMessageExceedsMaximumErr:
      return Error{-EIO, fmt::format("a message was refused: {}; remove the stream's own limit of "
                                     "a message",
                                     why)};
    default:
      return Error{-EIO,
                   fmt::format("a message was refused: {} ({}); look at the servers", why, number)};
  }
}

}  // namespace

Result<std::uint64_t> parse_publish_reply(std::string_view reply) {
  const Error unknown{-EIO,
                      "the servers' answer to a message is not understood; look at their "
                      "version"};
  if (reply.size() > kReplyMax) return unknown;
  const json parsed = json::parse(reply, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) return unknown;
  if (const json *error = member(parsed, "error"); error && error->is_object())
    return refused(*error);
  const json *sequence = member(parsed, "seq");
  if (!sequence || !sequence->is_number_unsigned()) return unknown;
  return sequence->get<std::uint64_t>();
}

}  // namespace tarn
