/* SPDX-License-Identifier: GPL-2.0 */
/* A running kernel with the module in it, as far as libtarn asks it for anything. What it is made
 * of is the test's to look at and change. */
#ifndef TARN_TESTS_REPLICATE_FAKE_KERNEL_H
#define TARN_TESTS_REPLICATE_FAKE_KERNEL_H

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "client/kernel_control.h"
#include "tests/replicate/fake_module.h"

namespace tarn::test {

struct FakeKernelState : FakeModule {
  std::vector<std::pair<std::string, std::string>> mounts;
  std::string other_mounts = "/dev/root / ext3 rw,data=ordered 0 0\nproc /proc proc rw 0 0\n";
  std::string log;
  int forced_mount_result = 0; /* of mount and umount, unless 0 */
};

class FakeKernel : public KernelCalls {
 public:
  explicit FakeKernel(FakeKernelState &state) : state_(state) {}

  int set_option(int code, const void *value, unsigned length) override {
    return state_.set_option(code, std::string(static_cast<const char *>(value), length));
  }

  int get_option(int code, void *buffer, unsigned *length) override {
    std::string bytes(static_cast<const char *>(buffer), *length);
    // The kernel does not know how large the buffer is; whoever calls must.
    const int result = state_.get_option(code, bytes, bytes.max_size());
    if (result != 0) return result;
    std::memcpy(buffer, bytes.data(), bytes.size());
    *length = static_cast<unsigned>(bytes.size());
    return 0;
  }

  int mount(const char *lower, const char *mountpoint) override {
    if (state_.forced_mount_result != 0) return state_.forced_mount_result;
    state_.mounts.emplace_back(lower, mountpoint);
    return 0;
  }

  int umount(const char *mountpoint, Umount) override {
    if (state_.forced_mount_result != 0) return state_.forced_mount_result;
    std::erase_if(state_.mounts, [&](const auto &mount) { return mount.second == mountpoint; });
    return 0;
  }

  Result<std::string> mount_table() override {
    std::string table = state_.other_mounts;
    for (const auto &[lower, at] : state_.mounts)
      table += escaped(lower) + " " + escaped(at) + " tarn rw,dir=" + lower + " 0 0\n";
    return table;
  }

  Result<std::string> log_buffer() override { return state_.log; }

 private:
  FakeKernelState &state_;
};

}  // namespace tarn::test

#endif
