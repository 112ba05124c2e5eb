// SPDX-License-Identifier: GPL-2.0
// The files of a log against any change: no entry is read that was not appended so, nothing behind
// the changed places is lost, and the log can be used.
//
// The input tells which entries are appended, then what is done to the files.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "mirrord/log/format.h"
#include "mirrord/log/log.h"

namespace {

using namespace tarn;
namespace fs = std::filesystem;

constexpr Log::Options kOptions{64 << 10, 300};

void check(bool holds) {
  if (!holds) std::abort();
}

class Folder {
 public:
  Folder() : path_("/dev/shm/tarn-log-fuzz-XXXXXX") { check(mkdtemp(path_.data()) != nullptr); }
  ~Folder() { fs::remove_all(path_); }
  std::string log() const { return path_ + "/log"; }

 private:
  std::string path_;
};

std::string read_file(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const fs::path &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::vector<fs::path> files_of(const std::string &directory) {
  std::set<fs::path> files;
  for (const auto &entry : fs::directory_iterator(directory)) files.insert(entry.path());
  return {files.begin(), files.end()};
}

/* Changes files; true if whole ones or headers were concerned, after which a log may be refused. */
bool change(const std::string &directory, fuzz::Input &input) {
  bool headers = false;
  for (int left = 8; left > 0 && !input.empty(); --left) {
    const auto files = files_of(directory);
    if (files.empty()) return true;
    const fs::path &file = files[input.u8() % files.size()];
    std::string bytes = read_file(file);
    const unsigned what = input.u8() % 6;
    const std::size_t at = bytes.empty() ? 0 : input.u16() % bytes.size();
    headers |= what >= 4 || at < sizeof(SegmentHeader);
    switch (what) {
      case 0:
        write_file(file, bytes.substr(0, at));
        break;
      case 1:
        if (!bytes.empty()) bytes[at] = static_cast<char>(bytes[at] ^ input.u8());
        write_file(file, bytes);
        break;
      case 2:
        write_file(file, bytes + input.bytes(400));
        break;
      case 3: {
        // A part of the file at another place.
        const std::string part = bytes.substr(at, input.u8());
        const std::size_t to = bytes.empty() ? 0 : input.u16() % bytes.size();
        headers |= to < sizeof(SegmentHeader);
        write_file(file, bytes.replace(to, part.size(), part));
        break;
      }
      case 4:
        fs::remove(file);
        break;
      default:
        write_file(file.parent_path() / segment_name(1 + input.u8() % 64), input.rest());
    }
  }
  return headers;
}

void read_all(const Log &log, const std::vector<std::string> &appended) {
  LogReader reader(log, log.first());
  for (;;) {
    const LogPosition at = reader.position();
    const auto entry = reader.next();
    if (!entry) {
      check(entry.error().code == -EBADMSG && !log.recovery().damage.empty());
      const auto next = reader.skip_damage();
      check(next.ok() && *next > at && *next <= log.end());
      continue;
    }
    if (!*entry) {
      check(at == log.end());
      return;
    }
    const Bytes payload = (*entry)->payload;
    check((*entry)->position == at && at <= appended.size());
    check(std::string(reinterpret_cast<const char *>(payload.data()), payload.size()) ==
          appended[at - 1]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input input(data, size);
  const Folder folder;
  std::vector<std::string> appended;
  {
    auto log = Log::open(folder.log(), kOptions);
    check(log.ok());
    for (unsigned count = input.u8() % 24; count > 0; --count) {
      appended.push_back(input.bytes(200));
      const Bytes part = std::as_bytes(std::span(appended.back()));
      check((*log)->append(static_cast<std::uint8_t>(count), std::span(&part, 1)).ok());
    }
  }
  const bool may_be_refused = change(folder.log(), input);
  auto log = Log::open(folder.log(), kOptions);
  if (!log) {
    check(may_be_refused && !log.error().text.empty());
    return 0;
  }
  if ((*log)->recovery().created) return 0;
  read_all(**log, appended);
  if ((*log)->bytes() > kOptions.limit / 2) return 0;
  const std::string more = "more";
  const Bytes part = std::as_bytes(std::span(more));
  const auto at = (*log)->append(1, std::span(&part, 1));
  check(at.ok() && (*log)->sync().ok());
  LogReader reader(**log, *at);
  const auto entry = reader.next();
  check(entry.ok() && entry->has_value() && (*entry)->payload.size() == more.size());
  return 0;
}
