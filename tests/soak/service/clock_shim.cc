// SPDX-License-Identifier: GPL-2.0
// A wall clock that is set while programs run, for the programs that it is preloaded in. The
// machine's own clock stays: what these programs read of it, and the change times of files, which
// the kernel took from it, are moved as if it had been set. Times that programs set themselves (of
// modification) are what they are.
//
// The file $SOAK_CLOCK holds the number of settings so far and for each: from when on by the
// machine's clock, and the offset, both in nanoseconds; 8 bytes each. It only grows while programs
// run. The calls go to the kernel directly, so that nothing depends on the order in which libraries
// are loaded.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::size_t kBytes = 1 << 16;

struct Setting {
  std::int64_t from, offset;
};
struct Clock {
  std::atomic<std::int64_t> count;
  Setting settings[kBytes / sizeof(Setting) - 1];
};

const Clock *map_clock() {
  const char *path = getenv("SOAK_CLOCK");
  if (path == nullptr) return nullptr;
  const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
  if (fd < 0) return nullptr;
  void *mapped = mmap(nullptr, kBytes, PROT_READ, MAP_SHARED, fd, 0);
  syscall(SYS_close, fd);
  return mapped == MAP_FAILED ? nullptr : static_cast<const Clock *>(mapped);
}

/* What is to be added to a time of the machine's clock. */
std::int64_t offset_at(std::int64_t time) {
  static std::atomic<const Clock *> known = nullptr;
  static std::atomic<bool> looked = false;
  if (!looked) {
    known = map_clock();
    looked = true;
  }
  const Clock *clock = known;
  if (clock == nullptr) return 0;
  std::int64_t offset = 0;
  for (std::int64_t i = 0; i < clock->count && clock->settings[i].from <= time; ++i)
    offset = clock->settings[i].offset;
  return offset;
}

template <class Seconds, class Nanoseconds>
void shift(Seconds &seconds, Nanoseconds &nanoseconds) {
  const std::int64_t time =
      static_cast<std::int64_t>(seconds) * kSecond + static_cast<std::int64_t>(nanoseconds);
  const std::int64_t shifted = time + offset_at(time);
  seconds = static_cast<Seconds>(shifted / kSecond);
  nanoseconds = static_cast<Nanoseconds>(shifted % kSecond);
}

int look_up(int directory, const char *path, struct stat *status, int flags) {
  if (syscall(SYS_newfstatat, directory, path, status, flags) != 0) return -1;
  shift(status->st_ctim.tv_sec, status->st_ctim.tv_nsec);
  return 0;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, struct timespec *now) noexcept {
  if (syscall(SYS_clock_gettime, clock, now) != 0) return -1;
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) shift(now->tv_sec, now->tv_nsec);
  return 0;
}

int gettimeofday(struct timeval *now, void *) noexcept {
  struct timespec precise;
  clock_gettime(CLOCK_REALTIME, &precise);
  now->tv_sec = precise.tv_sec;
  now->tv_usec = precise.tv_nsec / 1000;
  return 0;
}

time_t time(time_t *seconds) noexcept {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (seconds != nullptr) *seconds = now.tv_sec;
  return now.tv_sec;
}

int stat(const char *path, struct stat *status) noexcept {
  return look_up(AT_FDCWD, path, status, 0);
}
int lstat(const char *path, struct stat *status) noexcept {
  return look_up(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}
int fstat(int fd, struct stat *status) noexcept {
  return look_up(fd, "", status, AT_EMPTY_PATH);
}
int fstatat(int directory, const char *path, struct stat *status, int flags) noexcept {
  return look_up(directory, path, status, flags);
}

int statx(int directory, const char *path, int flags, unsigned mask,
          struct statx *status) noexcept {
  if (syscall(SYS_statx, directory, path, flags, mask, status) != 0) return -1;
  shift(status->stx_ctime.tv_sec, status->stx_ctime.tv_nsec);
  return 0;
}
}
