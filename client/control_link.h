/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The transport of configuration to the module: raw socket options, mounts and the kernel log.
 * ControlChannel interprets them and uses no other interface.
 * Calls block until they are done. One thread at a time.
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
  std::uint64_t number; /* a hole in the numbers: lines were overwritten before they were read */
  std::optional<std::uint64_t> us; /* when, microseconds since the epoch; not every kernel tells */
  unsigned level;                  /* 0 (worst) to 7 */
  std::string text;
};

struct LogPart {
  std::vector<LogLine> lines;
  std::uint64_t next; /* the number to ask for next */
};

enum class Umount { kIfIdle, kLazily };

class ControlLink {
 public:
  virtual ~ControlLink() = default;

  /* setsockopt(PF_INET, code): the module's own result, negative or positive. */
  virtual Result<int> set_option(int code, std::span<const std::byte> argument) = 0;

  /* getsockopt(PF_INET, code) with a buffer of `room` bytes that begins with `argument`, whose
   * length is the one that is given in. `bytes`: as many as the module says, at most `room`. */
  struct Option {
    int result;
    std::vector<std::byte> bytes;
  };
  virtual Result<Option> get_option(int code, std::span<const std::byte> argument,
                                    std::uint64_t room) = 0;

  /* Absolute paths. -EBUSY if a mount of tarn is there, -EINVAL if none is. */
  virtual Result<void> mount(const std::string &lower, const std::string &mountpoint) = 0;
  virtual Result<void> umount(const std::string &mountpoint, Umount how) = 0;
  virtual Result<std::vector<Mount>> mounts() = 0;

  /* Lines from number `first` on; waits up to `wait` for one. */
  virtual Result<LogPart> log(std::uint64_t first, std::chrono::milliseconds wait) = 0;
};

/* To the tarnd of the run directory. Errors: those of connect_socket(). */
Result<std::unique_ptr<ControlLink>> connect_tarnd(const std::string &run_dir);

/* To the module in the running kernel. Errors: those of socket(). */
Result<std::unique_ptr<ControlLink>> open_kernel();

}  // namespace tarn

#endif
