// SPDX-License-Identifier: GPL-2.0
// The system calls that configure the module in the running kernel.
#include <netinet/in.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "base/unique_fd.h"
#include "client/kernel_control.h"

namespace tarn {
namespace {

// Actions of syslog(2), which no header defines.
constexpr int kLogReadAll = 3;
constexpr int kLogBufferSize = 10;

int result_of(int returned) {
  return returned < 0 ? -errno : returned;
}

class RunningKernel : public KernelCalls {
 public:
  explicit RunningKernel(UniqueFd socket) : socket_(std::move(socket)) {}

  // The kernel passes unknown IP options to the handlers registered for the family, and takes their
  // lock interruptibly: retry on -EINTR.
  int set_option(int code, const void *value, unsigned length) override {
    int result;
    do {
      result = result_of(setsockopt(socket_.get(), IPPROTO_IP, code, value, length));
    } while (result == -EINTR);
    return result;
  }
  int get_option(int code, void *buffer, unsigned *length) override {
    int result;
    do {
      result = result_of(getsockopt(socket_.get(), IPPROTO_IP, code, buffer, length));
    } while (result == -EINTR);
    return result;
  }
  int mount(const char *lower, const char *mountpoint) override {
    return result_of(::mount(lower, mountpoint, "tarn", 0, nullptr));
  }
  int umount(const char *mountpoint, Umount how) override {
    return result_of(umount2(mountpoint, how == Umount::kLazily ? MNT_DETACH : 0));
  }
  Result<std::string> mount_table() override {
    std::ifstream table("/proc/mounts");
    if (!table) return system_error(errno, "cannot read /proc/mounts: is /proc mounted?");
    return std::string(std::istreambuf_iterator<char>(table), {});
  }
  Result<std::string> log_buffer() override {
    const int size = klogctl(kLogBufferSize, nullptr, 0);
    if (size < 0) return system_error(errno, "cannot read the kernel's log");
    std::string buffer(static_cast<std::size_t>(size), '\0');
    const int length = klogctl(kLogReadAll, buffer.data(), size);
    if (length < 0) return system_error(errno, "cannot read the kernel's log");
    buffer.resize(static_cast<std::size_t>(length));
    return buffer;
  }

 private:
  UniqueFd socket_;
};

}  // namespace

Result<std::unique_ptr<KernelCalls>> running_kernel() {
  UniqueFd socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket_fd) return system_error(errno, "cannot open a socket for the module's options");
  return std::unique_ptr<KernelCalls>(std::make_unique<RunningKernel>(std::move(socket_fd)));
}

}  // namespace tarn
