/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The control channel: one connection through which a program mounts, unmounts, changes and reads
 * rules and replicated directories, sets the daemon's program path and reads the kernel log. Calls
 * block until the answer is there. One thread at a time may use a channel. Only root and the user
 * that runs tarnd may change or read the configuration: others get -EPERM.
 */
#ifndef TARN_CLIENT_CONTROL_H
#define TARN_CLIENT_CONTROL_H

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/result.h"
#include "client/unique_fd.h"
#include "client/uuid.h"

namespace tarn {

struct Rule {
  Uuid uuid;
  std::string workdir; /* the text that make_workdir() writes and read_workdir() reads */
};

struct Mount {
  std::string lower;
  std::string mountpoint;
  std::string options;
};

struct LogLine {
  std::uint64_t number; /* a hole in the numbers: lines were overwritten before they were read */
  std::uint64_t us;
  unsigned level; /* 0 (worst) to 7 */
  std::string text;
};

struct LogPart {
  std::vector<LogLine> lines;
  std::uint64_t next; /* the number to ask for next */
};

class ControlChannel {
 public:
  /* Errors of connect_socket(). */
  static Result<ControlChannel> connect(const std::string &run_dir);

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

  enum class Umount { kIfIdle, kLazily };
  Result<void> mount(const std::string &lower, const std::string &mountpoint);
  Result<void> umount(const std::string &mountpoint, Umount how);
  Result<std::vector<Mount>> mounts();

  /* Lines from number `first` on; waits up to `wait` for one. */
  Result<LogPart> log(std::uint64_t first, std::chrono::milliseconds wait);

  /* A socket option of the module, as it is. The result is the module's own, negative or positive.
   */
  Result<int> set_option(int code, std::span<const std::byte> argument);
  struct Option {
    int result;
    std::vector<std::byte> bytes;
  };
  Result<Option> get_option(int code, std::span<const std::byte> buffer, std::uint64_t room);

 private:
  explicit ControlChannel(UniqueFd socket) : socket_(std::move(socket)) {}

  struct Answer {
    int result = 0;
    std::uint64_t total = 0;
    std::vector<std::byte> bytes;
  };
  Result<void> send(std::uint32_t op, std::int32_t arg, std::uint64_t room,
                    std::span<const std::byte> argument);
  Result<Answer> receive();
  Result<Answer> ask(std::uint32_t op, std::int32_t arg, std::uint64_t room,
                     std::span<const std::byte> argument);
  Result<void> ask_mount(std::uint32_t op, std::int32_t arg, const std::string &argument,
                         const std::string &what);

  UniqueFd socket_;
};

/*
 * One line for a result of the module that is not 0: what is wrong and what to do. `subject` is
 * what the request was about, for example "rule 0123...".
 */
Error module_error(int result, const std::string &subject);

}  // namespace tarn

#endif
