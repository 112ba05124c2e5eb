/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Configuration of the module in the running kernel: what it takes of the kernel, and the link that
 * is made of it. Of the kernel's mount table and log only what concerns tarn and what any program
 * may read is used.
 */
#ifndef TARN_CLIENT_KERNEL_CONTROL_H
#define TARN_CLIENT_KERNEL_CONTROL_H

#include <memory>
#include <string>

#include "client/control_link.h"

namespace tarn {

/* The system calls, each as it is; tests put a kernel of their own in their place. Results: what
 * the kernel returned, errors as -errno. */
class KernelCalls {
 public:
  virtual ~KernelCalls() = default;

  virtual int set_option(int code, const void *value, unsigned length) = 0;
  /* `length`: in, what the caller claims; out, what the kernel says. */
  virtual int get_option(int code, void *buffer, unsigned *length) = 0;
  /* With type tarn. */
  virtual int mount(const char *lower, const char *mountpoint) = 0;
  virtual int umount(const char *mountpoint, Umount how) = 0;
  /* The text of /proc/mounts. */
  virtual Result<std::string> mount_table() = 0;
  /* The kernel's log as it is: the newest bytes of a ring, so the first line may be cut. */
  virtual Result<std::string> log_buffer() = 0;
};

/* Of the running kernel. Errors: those of socket(). */
Result<std::unique_ptr<KernelCalls>> running_kernel();

std::unique_ptr<ControlLink> make_kernel_control(std::unique_ptr<KernelCalls> calls);

}  // namespace tarn

#endif
