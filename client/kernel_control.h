/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Configuration of the module in the running kernel: the system calls it needs, and the control
 * link made of them. It uses only what any program may read of the kernel's mount table and log.
 */
#ifndef TARN_CLIENT_KERNEL_CONTROL_H
#define TARN_CLIENT_KERNEL_CONTROL_H

#include <memory>
#include <string>

#include "client/control_link.h"

namespace tarn {

/* The system calls, which tests replace by a kernel of their own. They return the kernel's result,
 * errors as -errno. */
class KernelCalls {
 public:
  virtual ~KernelCalls() = default;

  virtual int set_option(int code, const void *value, unsigned length) = 0;
  /* `length`: in, the length that the caller passes; out, the kernel's. */
  virtual int get_option(int code, void *buffer, unsigned *length) = 0;
  /* Mounts with type tarn. */
  virtual int mount(const char *lower, const char *mountpoint) = 0;
  virtual int umount(const char *mountpoint, Umount how) = 0;
  /* The text of /proc/mounts. */
  virtual Result<std::string> mount_table() = 0;
  /* The raw kernel log: the newest bytes of a ring, so the first line may be cut. */
  virtual Result<std::string> log_buffer() = 0;
};

/* The running kernel's. Errors: those of socket(). */
Result<std::unique_ptr<KernelCalls>> running_kernel();

std::unique_ptr<ControlLink> make_kernel_control(std::unique_ptr<KernelCalls> calls);

}  // namespace tarn

#endif
