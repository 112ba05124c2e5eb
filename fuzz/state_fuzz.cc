// SPDX-License-Identifier: GPL-2.0
// The small files of the service's state: any bytes are a state that can be written again, or
// refused with a line that says what to do. A refused or an accepted file loses no record: an
// intake that opens takes entries, and opens again.
//
// Input: which file, whether its checksum is right, its body.
#include <stdlib.h>
#include <xxhash.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <fmt/format.h>

#include "fuzz/input.h"
#include "mirrord/service/intake.h"
#include "mirrord/service/target_state.h"

namespace {

using namespace tarn;

void check(bool holds) {
  if (!holds) std::abort();
}

class Folder {
 public:
  Folder() : path_("/dev/shm/tarn-state-fuzz-XXXXXX") { check(mkdtemp(path_.data()) != nullptr); }
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

void write_file(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string with_checksum(const std::string &body) {
  const XXH128_hash_t hash = XXH3_128bits(body.data(), body.size());
  return fmt::format("tarn-document 1 {:016x}{:016x} {}\n", hash.high64, hash.low64, body.size()) +
         body;
}

void check_refusal(const Error &error) {
  check(error.code == -EBADMSG && !error.text.empty());
  check(error.text.find('\n') == std::string::npos);
}

void try_target(const Folder &folder, const std::string &bytes) {
  write_file(folder / "target", bytes);
  const auto state = read_target_state(folder / "target");
  if (!state) return check_refusal(state.error());
  check(state->has_value());
  // Text that is no UTF-8 can be in no document.
  check(write_target_state(folder / "again", **state).ok());
  const auto again = read_target_state(folder / "again");
  check(again.ok() && again->has_value());
  check(write_target_state(folder / "third", **again).ok());
  check(read_file(folder / "again") == read_file(folder / "third"));
}

void try_intake(const Folder &folder, const std::string &bytes) {
  const Intake::Options options{.name = "s", .directory = folder.path(), .log_limit = 1 << 20};
  write_file(folder / "received.json", bytes);
  {
    auto intake = Intake::open(options);
    if (!intake) {
      check_refusal(intake.error());
      return check(read_file(folder / "received.json") == bytes);
    }
    (*intake)->gap(Intake::Missing::kSinceLastRecord, "fuzz");
    check((*intake)->mark({1, 1}) && (*intake)->log().end() >= 3);
  }
  check(Intake::open(options).ok());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input input(data, size);
  const bool target = input.u8() % 2 == 0;
  const bool checksum = input.u8() % 8 != 0;
  const std::string body = input.rest();
  const Folder folder;
  const std::string bytes = checksum ? with_checksum(body) : body;
  if (target)
    try_target(folder, bytes);
  else
    try_intake(folder, bytes);
  return 0;
}
