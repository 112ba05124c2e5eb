// SPDX-License-Identifier: GPL-2.0
// The data of files: both sides hash the same blocks at the same time.
#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/verify/comparison.h"

namespace tarn {
namespace {

/* What one request to a side reads. */
constexpr std::uint64_t kBatchBytes = 64 * kBlockSize;
constexpr std::size_t kBatchFiles = 1024;

}  // namespace

Result<void> Comparison::compare_data(const std::string &directory, std::vector<FilePair> &files,
                                      double begin, double share) {
  std::uint64_t all = 0, done = 0;
  for (const FilePair &file : files) all += file.size;
  std::vector<Slice> slices;
  std::vector<std::size_t> of;  // the file of each slice
  std::uint64_t waiting = 0;
  const auto flush = [&]() -> Result<void> {
    if (slices.empty()) return {};
    const std::string path = join(directory, files[of.front()].name);
    const double part = static_cast<double>(done) / static_cast<double>(all);
    auto reported = report(begin + share * part, "comparing " + printable(path));
    if (!reported) return reported;
    compare_slices(directory, files, of, slices);
    done += waiting;
    waiting = 0;
    slices.clear();
    of.clear();
    return {};
  };
  for (std::size_t i = 0; i < files.size(); ++i) {
    for (std::uint64_t at = 0; at < files[i].size && !files[i].settled();) {
      const std::uint64_t length = std::min(files[i].size - at, kBatchBytes - waiting);
      slices.push_back({files[i].name, at, length});
      of.push_back(i);
      waiting += length;
      at += length;
      if (waiting < kBatchBytes && slices.size() < kBatchFiles) continue;
      auto flushed = flush();
      if (!flushed) return flushed;
    }
    // A slice begins with a block.
    waiting = (waiting + kBlockSize - 1) / kBlockSize * kBlockSize;
    if (waiting < kBatchBytes) continue;
    auto flushed = flush();
    if (!flushed) return flushed;
  }
  return flush();
}

void Comparison::compare_slices(const std::string &directory, std::vector<FilePair> &files,
                                const std::vector<std::size_t> &of,
                                const std::vector<Slice> &slices) {
  std::vector<BlockHashes> source, target;
  thread_.both([&] { source = source_.block_hashes(directory, slices); },
               [&] { target = target_.block_hashes(directory, slices); });
  for (std::size_t i = 0; i < slices.size(); ++i) {
    FilePair &file = files[of[i]];
    const BlockHashes &s = source[i], &t = target[i];
    for (const auto &[side, hashes] : {std::pair{"source", &s}, std::pair{"target", &t}}) {
      if (hashes->error == 0) continue;
      if (means_absent(hashes->error))
        file.unsteady = true;
      else
        file.unreadable = fmt::format("{}: {}", side, plain_error(hashes->error).text);
    }
    if (file.settled()) continue;
    if (s.version != file.source || t.version != file.target) file.unsteady = true;
    if (s.hashes == t.hashes) continue;
    const auto [at, other] =
        std::mismatch(s.hashes.begin(), s.hashes.end(), t.hashes.begin(), t.hashes.end());
    const auto block = static_cast<std::uint64_t>(at - s.hashes.begin());
    file.differs = fmt::format("the block at byte {} is the first that differs",
                               slices[i].offset + block * kBlockSize);
  }
}

}  // namespace tarn
