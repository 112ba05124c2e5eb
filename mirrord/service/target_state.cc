// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/target_state.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/mount_table.h"
#include "base/text.h"
#include "client/base64.h"
#include "client/json_bytes.h"
#include "client/paths.h"
#include "mirrord/config/state_directory.h"
#include "mirrord/directory_walk.h"

namespace tarn {
namespace {

using Json = nlohmann::json;

/* The longest mount point that the path lies below. */
std::string mount_point_of(const std::string &path) {
  std::string longest;
  for (const MountEntry &entry : mount_table()) {
    if (path_below(entry.mountpoint, path) && entry.mountpoint.size() >= longest.size())
      longest = entry.mountpoint;
  }
  return printable(longest);
}

Json to_json(const DirectoryIdentity &identity) {
  return {{"object", identity.object}, {"mount_point", identity.mount_point}};
}

DirectoryIdentity identity_in(const Json &json) {
  return {json.at("object"), json.at("mount_point")};
}

Json to_json(const std::vector<std::string> &paths) {
  Json json = Json::array();
  for (const std::string &path : paths) json.push_back(Json(json_bytes(path)));
  return json;
}

Json to_json(const WalkPlace &place) {
  return {{"walk", place.begin.walk},
          {"since", place.begin.since},
          {"target", place.begin.target},
          {"position", place.position},
          {"after", Json(json_bytes(place.after))},
          {"suspects", to_json(place.suspects)},
          {"changed", to_json(place.doubts.changed)},
          {"failed", to_json(place.doubts.failed)},
          {"partly_unlinked", place.doubts.partly_unlinked},
          {"last_captured", place.last_captured},
          {"source", to_json(place.source)}};
}

Json to_json(const TargetState &state) {
  Json json = {{"uuid", to_string(state.uuid)}, {"log", state.log},
               {"position", state.position},    {"clean", state.clean},
               {"until", state.until},          {"compare_data", state.compare_data},
               {"paused", state.paused},        {"applied", state.applied},
               {"failures", state.failures},    {"gaps", state.gaps},
               {"skipped", state.skipped},      {"clock_set_backs", state.clock_set_backs}};
  if (state.identity) json["identity"] = to_json(*state.identity);
  if (state.walk) json["walk"] = to_json(*state.walk);
  if (!state.names_outside.empty()) json["names_outside"] = to_json(state.names_outside);
  if (state.more_names_outside) json["more_names_outside"] = true;
  if (state.missing_since) json["missing_since"] = *state.missing_since;
  if (state.read_since) json["read_since"] = *state.read_since;
  return json;
}

/* What json_bytes() wrote. Throws Json::exception. */
std::string bytes_of(const Json &json) {
  if (json.is_string()) return json;
  auto bytes = base64_decode(json.at("base64").get_ref<const std::string &>());
  if (!bytes) throw Json::other_error::create(501, "no base64 text", &json);
  return std::move(*bytes);
}

/* Throws Json::exception. */
std::vector<std::string> paths_in(const Json &json) {
  std::vector<std::string> paths;
  if (!json.is_array()) throw Json::other_error::create(501, "no list of paths", &json);
  for (const Json &path : json) paths.push_back(bytes_of(path));
  return paths;
}

/* Throws Json::exception. */
WalkPlace walk_in(const Json &json) {
  WalkPlace place{
      .begin = {.walk = count_field(json, "walk"),
                .since = time_field(json, "since"),
                .target = json.at("target")},
      .position = count_field(json, "position"),
      .after = bytes_of(json.at("after")),
      .suspects = paths_in(json.at("suspects")),
      .doubts = {.changed = paths_in(json.at("changed")), .failed = paths_in(json.at("failed"))},
      .last_captured = time_field(json, "last_captured"),
      .source = identity_in(json.at("source"))};
  const Json &unlinked = json.at("partly_unlinked");
  if (!unlinked.is_array()) throw Json::other_error::create(501, "no list of inodes", &json);
  for (const Json &inode : unlinked) {
    if (!inode.is_number_unsigned()) throw Json::other_error::create(501, "no inode", &json);
    place.doubts.partly_unlinked.push_back(inode);
  }
  return place;
}

/* Throws Json::exception. */
TargetState from_json(const Json &json) {
  const auto uuid = parse_uuid(json.at("uuid").get<std::string>());
  if (!uuid) throw Json::other_error::create(501, "no UUID is named", &json);
  TargetState state{.uuid = *uuid,
                    .log = json.at("log"),
                    .position = count_field(json, "position"),
                    .clean = json.at("clean"),
                    .until = time_field(json, "until"),
                    .compare_data = json.at("compare_data"),
                    .paused = json.at("paused"),
                    .clock_set_backs = count_field(json, "clock_set_backs"),
                    .applied = count_field(json, "applied"),
                    .failures = count_field(json, "failures"),
                    .gaps = count_field(json, "gaps"),
                    .skipped = count_field(json, "skipped")};
  if (json.contains("identity")) state.identity = identity_in(json.at("identity"));
  if (json.contains("walk")) state.walk = walk_in(json.at("walk"));
  if (json.contains("names_outside")) state.names_outside = paths_in(json.at("names_outside"));
  if (json.contains("more_names_outside")) state.more_names_outside = json.at("more_names_outside");
  if (json.contains("missing_since")) state.missing_since = time_field(json, "missing_since");
  if (json.contains("read_since")) state.read_since = time_field(json, "read_since");
  return state;
}

}  // namespace

Result<DirectoryIdentity> identify_directory(const std::string &path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return system_error(errno, printable(path));
  if (!S_ISDIR(status.st_mode)) return system_error(ENOTDIR, printable(path));
  DirectoryIdentity identity{std::to_string(status.st_ino), mount_point_of(path)};
#ifdef STATX_BTIME
  struct statx more;
  // Another one, if it was replaced meanwhile, is seen the next time.
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &more) == 0 &&
      (more.stx_mask & STATX_BTIME) != 0)
    identity.object += fmt::format(" {}.{:09}", more.stx_btime.tv_sec, more.stx_btime.tv_nsec);
#endif
  return identity;
}

Result<bool> directory_is_empty(const std::string &path) {
  UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return system_error(errno, printable(path));
  const auto entries = directory_entries(std::move(directory));
  if (!entries) return entries.error();
  // mkfs makes it.
  return entries->empty() || (entries->size() == 1 && entries->front().name == "lost+found");
}

Result<std::optional<TargetState>> read_target_state(const std::string &file) {
  const auto document = read_document(file);
  if (!document) return document.error();
  if (!*document) return std::optional<TargetState>();
  try {
    return std::optional<TargetState>(from_json(**document));
  } catch (const Json::exception &error) {
    return Error{-EBADMSG, fmt::format("{}: {}: remove the file to compare the target anew",
                                       printable(file), error.what())};
  }
}

Result<void> write_target_state(const std::string &file, const TargetState &state) {
  return write_document(file, to_json(state));
}

}  // namespace tarn
