// SPDX-License-Identifier: GPL-2.0
#include "mirrord/state.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "base/text.h"
#include "base/text_file.h"
#include "base/unique_fd.h"
#include "client/json_bytes.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

std::string cannot(const std::string &what, const std::string &path) {
  return fmt::format(
      "cannot {} {} for the replication state (TARN_STATE_DIR names another directory)", what,
      printable(path));
}

Error cannot(const std::string &what, const std::string &path, int err) {
  return system_error(err, cannot(what, path));
}

Result<void> make_directories(const std::string &path) {
  for (std::size_t end = 0; end != std::string::npos;) {
    end = path.find('/', end + 1);
    const std::string part = path.substr(0, end);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST && errno != EROFS && errno != EACCES)
      return cannot("make the directory", part, errno);
  }
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return cannot("make the directory", path, errno);
  return {};
}

/* FNV-1a: a short file name for two paths. The file itself holds the paths. */
std::uint64_t hash(std::string_view text) {
  std::uint64_t value = 0xcbf29ce484222325;
  for (const unsigned char byte : text) value = (value ^ byte) * 0x100000001b3;
  return value;
}

/* Device numbers change between boots and inode numbers are reused. The birth time, where the file
 * system has it, distinguishes two directories of one inode number. */
Result<std::string> identity_of(const std::string &directory) {
  struct stat status;
  if (stat(directory.c_str(), &status) != 0)
    return system_error(errno, "cannot look up the replica " + printable(directory));
  std::string identity = std::to_string(status.st_ino);
#ifdef STATX_BTIME
  struct statx more;
  if (statx(AT_FDCWD, directory.c_str(), 0, STATX_BTIME, &more) == 0 &&
      (more.stx_mask & STATX_BTIME) != 0)
    identity += fmt::format(" {}.{:09}", more.stx_btime.tv_sec, more.stx_btime.tv_nsec);
#endif
  return identity;
}

/* The variable's value; null if it is unset or empty. */
const char *variable(const char *name) {
  const char *value = std::getenv(name);
  return value && *value ? value : nullptr;
}

}  // namespace

Result<std::string> state_directory() {
  if (const char *given = variable("TARN_STATE_DIR")) return std::string(given);
  if (geteuid() == 0) return std::string("/var/lib/tarn");
  if (const char *state = variable("XDG_STATE_HOME")) return std::string(state) + "/tarn";
  if (const char *home = variable("HOME")) return std::string(home) + "/.local/state/tarn";
  return Error{-ENOENT,
               "no directory is known for the replication state: set HOME or TARN_STATE_DIR"};
}

Result<StateFile> StateFile::open(const std::string &source, const std::string &replica) {
  auto directory = state_directory();
  if (!directory) return directory.error();
  if (auto made = make_directories(*directory); !made) return made.error();
  auto identity = identity_of(replica);
  if (!identity) return identity.error();
  StateFile file;
  file.path_ = fmt::format("{}/mirrord-{:016x}.json", *directory,
                           hash(source + std::string(1, '\0') + replica));
  file.directory_ = std::move(*directory);
  file.source_ = source;
  file.replica_ = replica;
  file.identity_ = std::move(*identity);
  const auto trial = file.write_beside("");
  if (!trial) return trial.error();
  unlink(trial->c_str());
  return file;
}

/* Writes a new file beside the state file and syncs it. Returns its name. */
Result<std::string> StateFile::write_beside(const std::string &text) const {
  std::string name = path_ + ".XXXXXX";
  UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
  if (!fd) return cannot("write", path_, errno);
  int err = write_text(fd.get(), text);
  if (err == 0 && fsync(fd.get()) != 0) err = errno;
  if (const int close_error = fd.close(); err == 0) err = close_error;
  if (err == 0) return name;
  unlink(name.c_str());
  return cannot("write", path_, err);
}

Result<void> StateFile::write(const Positions &positions) const {
  Json json;
  json["source"] = json_bytes(source_);
  json["replica"] = json_bytes(replica_);
  json["replica_identity"] = identity_;
  json["rules"] = Json::array();
  for (const auto &[uuid, position] : positions)
    json["rules"].push_back({{"uuid", to_string(uuid)},
                             {"generation", position.generation},
                             {"last_wseq", position.last}});
  const auto written = write_beside(json.dump(2) + "\n");
  if (!written) return written.error();
  if (rename(written->c_str(), path_.c_str()) != 0) {
    const int err = errno;
    unlink(written->c_str());
    return cannot("write", path_, err);
  }
  const UniqueFd directory(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || fsync(directory.get()) != 0) return cannot("write", path_, errno);
  return {};
}

Result<StateFile::Positions> StateFile::read() const {
  Positions positions;
  if (access(path_.c_str(), F_OK) != 0 && errno == ENOENT) return positions;
  const auto text = read_text(path_, cannot("read", path_));
  if (!text) return text.error();
  const Json json = Json::parse(*text, nullptr, false);
  const Error broken{-EBADMSG,
                     printable(path_) + " is not the state of the replica " + printable(replica_)};
  try {
    if (json.at("source") != json_bytes(source_) || json.at("replica") != json_bytes(replica_))
      return broken;
    if (json.at("replica_identity") != identity_) return positions;
    for (const Json &rule : json.at("rules")) {
      const auto uuid = parse_uuid(rule.at("uuid").get<std::string>());
      if (!uuid) return broken;
      positions[*uuid] = {rule.at("generation").get<std::uint32_t>(),
                          rule.at("last_wseq").get<std::uint32_t>()};
    }
  } catch (const Json::exception &) {
    return broken;
  }
  return positions;
}

}  // namespace tarn
