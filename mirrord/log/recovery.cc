// SPDX-License-Identifier: GPL-2.0
#include "mirrord/log/recovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/log/entry_cursor.h"

namespace tarn {
namespace {

constexpr LogPosition kNoLimit = std::numeric_limits<LogPosition>::max();

/* Not held open: there may be more segments than descriptors. */
struct SegmentFile {
  LogPosition first = 0;
  std::uint64_t size = 0;
  SegmentHeader header = {};
  bool header_intact = false;
};

/* What a walk over a segment found. */
struct Walk {
  std::uint64_t intact_bytes = 0; /* up to the end of the last intact entry */
  LogPosition end = 0;
  std::int64_t last_ns = 0; /* the latest time of an entry */
};

Error cannot_open(const std::string &name, int err) {
  return system_error(err, "cannot open the log " + printable(name));
}

/* The positions of the segments, in order. Removes what an interrupted creation has left. */
Result<std::vector<LogPosition>> list_segments(int directory, const std::string &name) {
  const int copy = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (copy < 0) return cannot_open(name, errno);
  const std::unique_ptr<DIR, int (*)(DIR *)> open(fdopendir(copy), closedir);
  if (!open) {
    const int err = errno;
    close(copy);
    return cannot_open(name, err);
  }
  std::vector<LogPosition> positions;
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(open.get());
    if (!entry && errno != 0) return cannot_open(name, errno);
    if (!entry) break;
    if (const auto first = parse_segment_name(entry->d_name)) positions.push_back(*first);
  }
  std::sort(positions.begin(), positions.end());
  return positions;
}

Result<SegmentFile> look_at(int directory, const std::string &name, LogPosition first) {
  const std::string path = shown_segment(name, first);
  const std::string what = "cannot open the log segment " + path;
  SegmentFile segment;
  segment.first = first;
  const auto file = open_segment_file(directory, first, O_RDWR, what);
  if (!file) return file.error();
  struct stat status;
  if (fstat(file->get(), &status) != 0) return system_error(errno, what);
  if (!S_ISREG(status.st_mode))
    return Error{-EINVAL, path + " has a log segment's name but is no regular file: move it away"};
  segment.size = static_cast<std::uint64_t>(status.st_size);
  const ssize_t got = pread(file->get(), &segment.header, sizeof(segment.header), 0);
  if (got < 0) return system_error(errno, what);
  segment.header_intact = got == sizeof(segment.header) && is_intact(segment.header);
  if (segment.header_intact && segment.header.version != kLogVersion)
    return Error{-EPROTO, fmt::format("{} is of version {} of the log, and this program reads {}: "
                                      "use the program that wrote it, or move the log away",
                                      path, segment.header.version, kLogVersion)};
  if (segment.header_intact && segment.header.first != first)
    return Error{-EINVAL,
                 fmt::format("{} was renamed: it begins with entry {}, so give it the "
                             "name {} again",
                             path, segment.header.first, segment_name(segment.header.first))};
  return segment;
}

/* The epoch that all intact headers agree on. */
Result<Uuid> common_epoch(const std::vector<SegmentFile> &files, const std::string &name) {
  const SegmentFile *known = nullptr;
  for (const SegmentFile &file : files) {
    if (!file.header_intact) continue;
    if (known && !std::equal(file.header.epoch, std::end(file.header.epoch), known->header.epoch))
      return Error{-EINVAL,
                   fmt::format("{} and {} belong to different logs: move away the one "
                               "that does not belong here",
                               shown_segment(name, known->first), shown_segment(name, file.first))};
    known = &file;
  }
  if (!known)
    return Error{-EBADMSG,
                 fmt::format("no segment of the log {} has an intact header: move the log away, "
                             "then a new one is made and the targets are compared with the source",
                             printable(name))};
  Uuid epoch;
  std::copy(known->header.epoch, std::end(known->header.epoch), epoch.bytes.begin());
  return epoch;
}

std::string damaged_entries(const EntryCursor::Place &from, LogPosition to,
                            const std::string &path) {
  return fmt::format("entries {} to {} are damaged or missing ({} at byte {})", from.expected,
                     to - 1, path, from.offset);
}

/* Looks at every entry. `next`: where the next segment begins; kNoLimit in the last one. */
Result<Walk> walk(int directory, const SegmentFile &segment, std::uint64_t seed, LogPosition next,
                  const std::string &path, std::vector<std::string> &damage) {
  const auto file =
      open_segment_file(directory, segment.first, O_RDONLY, "cannot read the log segment " + path);
  if (!file) return file.error();
  EntryCursor cursor(file->get(), seed, segment.first, next, "the log segment " + path);
  LogEntry entry;
  std::int64_t last_ns = 0;
  for (;;) {
    const EntryCursor::Place place = cursor.place();
    const auto found = cursor.read(segment.size, entry);
    if (!found) return found.error();
    if (*found == EntryCursor::Found::kEntry) {
      last_ns = std::max(last_ns, entry.time_ns);
      continue;
    }
    if (*found == EntryCursor::Found::kDamage) {
      const auto more = cursor.skip(segment.size);
      if (!more) return more.error();
      if (*more) {
        damage.push_back(damaged_entries(place, cursor.place().expected, path));
        continue;
      }
    }
    if (next != kNoLimit && place.expected < next)
      damage.push_back(damaged_entries(place, next, path));
    else if (next != kNoLimit && *found == EntryCursor::Found::kDamage)
      damage.push_back(
          fmt::format("{} goes on behind its last entry, at byte {}", path, place.offset));
    return Walk{place.offset, place.expected, last_ns};
  }
}

std::string describe_damage(const std::vector<std::string> &damage) {
  if (damage.size() < 2) return damage.empty() ? "" : damage.front();
  return fmt::format("{}; {} more places, the last one: {}", damage.front(), damage.size() - 1,
                     damage.back());
}

/* Makes headers right and cuts the last segment behind its last intact entry. */
Result<UniqueFd> mend(int directory, const SegmentFile &segment, const SegmentHeader &header,
                      std::uint64_t size, const std::string &path) {
  const std::string what = "cannot mend the log segment " + path;
  auto file = open_segment_file(directory, segment.first, O_RDWR, what);
  if (!file) return file.error();
  if (!segment.header_intact) {
    const Bytes bytes = std::as_bytes(std::span(&header, 1));
    if (const int err = write_pieces(file->get(), std::span(&bytes, 1), 0); err != 0)
      return system_error(err, what);
  }
  if (size < segment.size && ftruncate(file->get(), static_cast<off_t>(size)) != 0)
    return system_error(errno, what);
  // What was written by a process that ended before it synced may be in the page cache only.
  if (fdatasync(file->get()) != 0) return system_error(errno, what);
  return file;
}

/* The first segment has its name only when it is on the disk: its header holds the epoch. */
Result<void> make_first(int directory, const std::string &name) {
  const auto epoch = make_uuid();
  if (!epoch) return epoch.error();
  const std::string what = "cannot make the log " + printable(name);
  const auto file =
      make_segment_file(directory, kTemporaryName, make_segment_header(*epoch, 1), what);
  if (!file) return file.error();
  if (fdatasync(file->get()) != 0 ||
      renameat(directory, kTemporaryName, directory, segment_name(1).c_str()) != 0) {
    const int err = errno;
    unlinkat(directory, kTemporaryName, 0);
    return system_error(err, what);
  }
  const UniqueFd parent(openat(directory, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent || fsync(directory) != 0 || fsync(parent.get()) != 0)
    return system_error(errno, what);
  return {};
}

}  // namespace

Result<UniqueFd> open_log_directory(const std::string &name) {
  if (mkdir(name.c_str(), 0700) != 0 && errno != EEXIST)
    return system_error(errno, "cannot make the log " + printable(name));
  UniqueFd directory(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status;
  if (!directory || fstat(directory.get(), &status) != 0) return cannot_open(name, errno);
  if (status.st_uid != geteuid())
    return Error{-EPERM,
                 fmt::format("the log {} belongs to user {}, and this is user {}: give it another "
                             "directory, or change the owner of this one and of its files",
                             printable(name), status.st_uid, geteuid())};
  if (flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return cannot_open(name, errno);
    return Error{-EBUSY, "another process has the log " + printable(name) +
                             " open: end it, or give this one another directory"};
  }
  return directory;
}

Result<RecoveredLog> recover_log(const UniqueFd &directory, const std::string &name) {
  RecoveredLog log;
  auto positions = list_segments(directory.get(), name);
  if (!positions) return positions.error();
  if (positions->empty()) {
    if (const auto made = make_first(directory.get(), name); !made) return made.error();
    log.report.created = true;
    positions->push_back(1);
  }
  std::vector<SegmentFile> files;
  for (const LogPosition first : *positions) {
    auto file = look_at(directory.get(), name, first);
    if (!file) return file.error();
    files.push_back(std::move(*file));
  }
  const auto epoch = common_epoch(files, name);
  if (!epoch) return epoch.error();
  log.epoch = *epoch;

  std::vector<std::string> damage;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const bool last = i + 1 == files.size();
    const LogPosition next = last ? kNoLimit : files[i + 1].first;
    const auto segment = std::make_shared<LogSegment>();
    segment->first = files[i].first;
    segment->seed = make_segment_header(*epoch, files[i].first).checksum;
    const std::string path = shown_segment(name, segment->first);
    const auto walked = walk(directory.get(), files[i], segment->seed, next, path, damage);
    if (!walked) return walked.error();
    // The header of a new segment is on the disk when its entries are, not before.
    if (!files[i].header_intact && !(last && walked->end == segment->first))
      damage.push_back("the header of " + path + " was damaged and is made anew");
    segment->bytes =
        last ? walked->intact_bytes : std::max<std::uint64_t>(files[i].size, sizeof(SegmentHeader));
    segment->end = last ? walked->end : next;
    log.last_ns = std::max(log.last_ns, walked->last_ns);
    log.segments.push_back(segment);
  }
  log.report.damage = describe_damage(damage);

  if (unlinkat(directory.get(), kTemporaryName, 0) != 0 && errno != ENOENT)
    return cannot_open(name, errno);
  for (std::size_t i = 0; i < files.size(); ++i) {
    LogSegment &segment = *log.segments[i];
    auto mended = mend(directory.get(), files[i], make_segment_header(*epoch, segment.first),
                       segment.bytes, shown_segment(name, segment.first));
    if (!mended) return mended.error();
    if (i + 1 == files.size()) segment.file = std::make_shared<const UniqueFd>(std::move(*mended));
    segment.synced_bytes = segment.bytes;
    segment.synced_end = segment.end;
    if (files[i].size > segment.bytes) log.report.bytes_cut += files[i].size - segment.bytes;
  }
  if (fsync(directory.get()) != 0) return cannot_open(name, errno);
  return log;
}

}  // namespace tarn
