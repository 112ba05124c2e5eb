/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The transport below ControlChannel: raw socket options, mounts and the kernel log. Calls block
 * until they are done. One thread at a time.
 */
#ifndef TARN_CLIENT_CONTROL_LINK_H
#define TARN_CLIENT_CONTROL_LINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace tarn {

struct Mount {
  std::string lower;
  std::string mountpoint;
  std::string options;
};

struct LogLine {
  std::uint64_t number;            /* a gap: lines were overwritten before they were read */
  std::optional<std::uint64_t> us; /* microseconds since the epoch; not known for every kernel */
  unsigned level;                  /* 0 (worst) to 7 */
  std::string text;
};

struct LogPart {
  std::vector<LogLine> lines;
  std::uint64_t next; /* the number to read from next */
};

enum class Umount { kIfIdle, kLazily };

class ControlLink {
 public:
  virtual ~ControlLink() = default;

  /* setsockopt(PF_INET, code). Returns the module's own result, negative or positive. */
  virtual Result<int> set_option(int code, std::span<const std::byte> argument) = 0;

  /* getsockopt(PF_INET, code) with a buffer of `room` bytes that begins with `argument`; the length
   * passed in is `argument`'s. `bytes` has the length that the module returns, at most `room`. */
  struct Option {
    int result;
    std::vector<std::byte> bytes;
  };
  virtual Result<Option> get_option(int code, std::span<const std::byte> argument,
                                    std::uint64_t room) = 0;

  /* Absolute paths. Errors: mount: -EBUSY if a mount of tarn is there; umount: -EINVAL if none is.
   * `cache`: for how long the host may keep names and attributes of a mount of tarnd, if not for
   * the default time; a kernel's own mounts have no such time (-EOPNOTSUPP). */
  virtual Result<void> mount(const std::string &lower, const std::string &mountpoint,
                             std::optional<std::chrono::milliseconds> cache) = 0;
  virtual Result<void> umount(const std::string &mountpoint, Umount how) = 0;
  virtual Result<std::vector<Mount>> mounts() = 0;

  /* Returns the lines from number `first` on; waits up to `wait` for one. */
  virtual Result<LogPart> log(std::uint64_t first, std::chrono::milliseconds wait) = 0;
};

/* Connects to the tarnd of the run directory. Errors: those of connect_socket(). */
Result<std::unique_ptr<ControlLink>> connect_tarnd(const std::string &run_dir);

/* For the module in the running kernel. Errors: those of socket(). */
Result<std::unique_ptr<ControlLink>> open_kernel();

}  // namespace tarn

#endif
