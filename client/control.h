/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The control channel, for mounts, rules, replicated directories, the daemon's program path and the
 * kernel log. Calls block until they are answered. One thread at a time may use a channel. Only
 * root and the user that runs tarnd may read or change the configuration; others get -EPERM.
 */
#ifndef TARN_CLIENT_CONTROL_H
#define TARN_CLIENT_CONTROL_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/control_link.h"
#include "client/site.h"
#include "client/uuid.h"

namespace tarn {

struct Rule {
  Uuid uuid;
  std::string workdir; /* the text that make_workdir() writes and read_workdir() reads */
};

class ControlChannel {
 public:
  /* Errors: those of connect_tarnd() or open_kernel(). */
  static Result<ControlChannel> connect(const Site &site);

  explicit ControlChannel(std::unique_ptr<ControlLink> link) : link_(std::move(link)) {}

  Result<void> add_rule(const Rule &rule);
  Result<void> delete_rule(const Uuid &uuid);
  Result<void> flush_rules();
  Result<bool> rule_exists(const Uuid &uuid);
  Result<int> count_rules();
  Result<Rule> get_rule(const Uuid &uuid);
  Result<std::vector<Rule>> list_rules();

  Result<void> add_directory(const Uuid &uuid, const std::string &path);
  Result<void> delete_directory(const Uuid &uuid);
  Result<void> flush_directories();
  /* The program that may rename inside replicated directories. */
  Result<void> set_daemon_path(const std::string &path);

  Result<void> mount(const std::string &lower, const std::string &mountpoint,
                     std::optional<std::chrono::milliseconds> cache = {}) {
    return link_->mount(lower, mountpoint, cache);
  }
  Result<void> umount(const std::string &mountpoint, Umount how) {
    return link_->umount(mountpoint, how);
  }
  Result<std::vector<Mount>> mounts() { return link_->mounts(); }

  /* Returns the lines from number `first` on; waits up to `wait` for one. */
  Result<LogPart> log(std::uint64_t first, std::chrono::milliseconds wait) {
    return link_->log(first, wait);
  }

  /* Raw socket options of the module; the result is the module's own, negative or positive. */
  Result<int> set_option(int code, std::span<const std::byte> argument) {
    return link_->set_option(code, argument);
  }
  using Option = ControlLink::Option;
  Result<Option> get_option(int code, std::span<const std::byte> argument, std::uint64_t room) {
    return link_->get_option(code, argument, room);
  }

 private:
  std::unique_ptr<ControlLink> link_;
};

/*
 * A one-line message for a non-zero result of the module: the problem and the remedy. `subject` is
 * the object of the request, for example "rule 0123...".
 */
Error module_error(int result, const std::string &subject);

}  // namespace tarn

#endif
