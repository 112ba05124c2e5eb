// SPDX-License-Identifier: GPL-2.0
#include "client/kernel_control.h"

#include <algorithm>
#include <cerrno>
#include <thread>

#include <fmt/format.h>

#include "base/text.h"
#include "client/kernel_log.h"

namespace tarn {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLogPoll{100};

/*
 * The mounts of type tarn in "SOURCE MOUNTPOINT TYPE OPTIONS 0 0\n" lines. SOURCE is the lower
 * directory, unless a relative path was mounted; then it is taken from the end of OPTIONS, where it
 * is not escaped.
 */
std::vector<Mount> tarn_mounts(std::string_view table) {
  constexpr std::string_view kEnd = " 0 0", kLower = ",dir=";
  std::vector<Mount> mounts;
  while (!table.empty()) {
    std::string_view line = take_until(table, '\n');
    Mount mount;
    mount.lower = unescape_octal(take_until(line, ' '));
    mount.mountpoint = unescape_octal(take_until(line, ' '));
    if (take_until(line, ' ') != "tarn") continue;
    if (line.ends_with(kEnd)) line.remove_suffix(kEnd.size());
    mount.options = line;
    const std::size_t lower = line.find(kLower);
    if (!mount.lower.starts_with('/') && lower != std::string_view::npos)
      mount.lower = line.substr(lower + kLower.size());
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

class KernelControl : public ControlLink {
 public:
  explicit KernelControl(std::unique_ptr<KernelCalls> calls) : calls_(std::move(calls)) {}

  Result<int> set_option(int code, std::span<const std::byte> argument) override {
    return calls_->set_option(code, argument.data(), static_cast<unsigned>(argument.size()));
  }

  Result<Option> get_option(int code, std::span<const std::byte> argument,
                            std::uint64_t room) override {
    std::vector<std::byte> buffer(argument.begin(), argument.end());
    auto length = static_cast<unsigned>(buffer.size());
    buffer.resize(std::max<std::size_t>(buffer.size(), room));
    const int result = calls_->get_option(code, buffer.data(), &length);
    if (result != 0) return Option{result, {}};
    if (length > buffer.size())
      return Error{-EPROTO, fmt::format("the module's answer makes no sense ({} bytes for {}): "
                                        "tool and module must be of one version",
                                        length, buffer.size())};
    buffer.resize(length);
    return Option{0, std::move(buffer)};
  }

  Result<void> mount(const std::string &lower, const std::string &mountpoint,
                     std::optional<std::chrono::milliseconds> cache) override {
    if (cache)
      return Error{
          -EOPNOTSUPP,
          "the module is in the kernel, whose mounts keep nothing for a time: leave --cache out"};
    auto there = is_mounted(mountpoint);
    if (!there) return there.error();
    if (*there) return Error{-EBUSY, printable(mountpoint) + " is mounted already"};
    const int result = calls_->mount(lower.c_str(), mountpoint.c_str());
    if (result == 0) return {};
    const std::string what =
        fmt::format("cannot mount {} on {}", printable(lower), printable(mountpoint));
    if (result == -EPERM) return Error{result, what + ": only root may mount"};
    if (result == -ENODEV) return Error{result, what + ": the module is not loaded: load tarn.ko"};
    return system_error(-result, what);
  }

  Result<void> umount(const std::string &mountpoint, Umount how) override {
    auto there = is_mounted(mountpoint);
    if (!there) return there.error();
    if (!*there) return Error{-EINVAL, printable(mountpoint) + " is not a mount of tarn"};
    const int result = calls_->umount(mountpoint.c_str(), how);
    if (result == 0) return {};
    const std::string what = "cannot unmount " + printable(mountpoint);
    if (result == -EPERM) return Error{result, what + ": only root may unmount"};
    if (result == -EBUSY)
      return Error{result, what + ": programs use it: end them, or unmount it with --lazy"};
    return system_error(-result, what);
  }

  Result<std::vector<Mount>> mounts() override {
    auto table = calls_->mount_table();
    if (!table) return table.error();
    return tarn_mounts(*table);
  }

  Result<LogPart> log(std::uint64_t first, std::chrono::milliseconds wait) override {
    const auto deadline = Clock::now() + wait;
    for (;;) {
      const auto buffer = calls_->log_buffer();
      if (!buffer) return buffer.error();
      log_.update(*buffer);
      LogPart part = log_.lines(first);
      if (!part.lines.empty() || Clock::now() >= deadline) return part;
      std::this_thread::sleep_for(kLogPoll);
    }
  }

 private:
  Result<bool> is_mounted(const std::string &mountpoint) {
    const auto all = mounts();
    if (!all) return all.error();
    return std::any_of(all->begin(), all->end(),
                       [&](const Mount &mount) { return mount.mountpoint == mountpoint; });
  }

  std::unique_ptr<KernelCalls> calls_;
  KernelLog log_;
};

}  // namespace

std::unique_ptr<ControlLink> make_kernel_control(std::unique_ptr<KernelCalls> calls) {
  return std::make_unique<KernelControl>(std::move(calls));
}

Result<std::unique_ptr<ControlLink>> open_kernel() {
  auto calls = running_kernel();
  if (!calls) return calls.error();
  return make_kernel_control(std::move(*calls));
}

}  // namespace tarn
