// SPDX-License-Identifier: GPL-2.0
#include "mirrord/status.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string_view>

#include "base/text.h"
#include "base/text_file.h"
#include "base/unique_fd.h"
#include "client/json_bytes.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

Json to_json(const MirrorStatus &status) {
  Json json;
  json["pid"] = status.pid;
  json["running"] = status.running;
  json["source"] = json_bytes(status.source);
  json["replica"] = json_bytes(status.replica);
  json["problems"] = status.problems();
  json["lost"] = status.lost;
  json["malformed"] = status.malformed;
  json["foreign"] = status.foreign;
  json["unconfirmed"] = status.unconfirmed;
  json["write_back_errors"] = status.write_back_errors;
  json["caught_up_to_ns"] = status.caught_up_to_ns;
  std::uint64_t messages = 0, bytes = 0, nameless = 0, failures = 0;
  Json rules = Json::array();
  for (const auto &[uuid, rule] : status.rules) {
    rules.push_back({{"uuid", to_string(uuid)},
                     {"last_wseq", rule.last_wseq},
                     {"messages", rule.messages},
                     {"bytes", rule.bytes},
                     {"nameless", rule.nameless},
                     {"failures", rule.failures},
                     {"gaps", rule.gaps},
                     {"duplicates", rule.duplicates},
                     {"stopped", rule.stopped},
                     {"unchecked", rule.unchecked}});
    messages += rule.messages;
    bytes += rule.bytes;
    nameless += rule.nameless;
    failures += rule.failures;
  }
  json["messages"] = messages;
  json["bytes"] = bytes;
  json["nameless"] = nameless;
  json["failures"] = failures;
  json["rules"] = std::move(rules);
  return json;
}

/* The new file replaces the old one by rename, which must not remove a device or hit a
 * directory. */
bool replaceable(const std::string &file) {
  struct stat status;
  return lstat(file.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

Error cannot_write(const std::string &file, int err) {
  return system_error(err, "cannot write the status file " + printable(file));
}

/* Writes the status to a new file beside `file`. Returns its name. */
Result<std::string> write_beside(const std::string &file, const MirrorStatus &status) {
  const std::string text = to_json(status).dump(2) + "\n";
  if (!replaceable(file))
    return Error{-EINVAL, "cannot write the status file " + printable(file) +
                              ": there is something that is no regular file: name another"};
  std::string name = file + ".XXXXXX";
  UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
  if (!fd) return cannot_write(file, errno);
  int err = 0;
  if (fchmod(fd.get(), 0644) != 0) err = errno;
  if (err == 0) err = write_text(fd.get(), text);
  if (const int close_error = fd.close(); err == 0) err = close_error;
  if (err == 0) return name;
  ::unlink(name.c_str());
  return cannot_write(file, err);
}

}  // namespace

std::uint64_t MirrorStatus::problems() const {
  std::uint64_t count = lost + malformed + unconfirmed + write_back_errors;
  for (const auto &[uuid, rule] : rules)
    count += rule.failures + rule.gaps + rule.stopped + rule.unchecked;
  return count;
}

Result<void> check_status_file(const std::string &file) {
  if (file.empty()) return {};
  const auto written = write_beside(file, {});
  if (!written) return written.error();
  ::unlink(written->c_str());
  return {};
}

Result<void> write_status(const std::string &file, const MirrorStatus &status) {
  const auto written = write_beside(file, status);
  if (!written) return written.error();
  if (rename(written->c_str(), file.c_str()) == 0) return {};
  const int err = errno;
  ::unlink(written->c_str());
  return cannot_write(file, err);
}

Result<CatchUpState> read_status(const std::string &file) {
  const std::string what = "cannot read the status file " + printable(file);
  const auto text = read_text(file, what);
  if (!text && text.error().code == -ENOENT)
    return system_error(ENOENT, what + ": no mirrord writes it");
  if (!text) return text.error();
  const Json json = Json::parse(*text, nullptr, false);
  CatchUpState state;
  try {
    state.pid = json.at("pid").get<pid_t>();
    state.running = json.at("running").get<bool>();
    state.caught_up_to_ns = json.at("caught_up_to_ns").get<std::int64_t>();
    state.problems = json.at("problems").get<std::uint64_t>();
  } catch (const Json::exception &) {
    return Error{-EBADMSG, printable(file) + " is not the status file of a mirrord"};
  }
  return state;
}

std::int64_t monotonic_ns() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

}  // namespace tarn
