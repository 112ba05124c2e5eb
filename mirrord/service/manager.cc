// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/manager.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "base/result.h"
#include "mirrord/service/journal.h"

namespace tarn {
namespace {

constexpr std::string_view kLock = "lock";
constexpr std::string_view kChannel = "channel."; /* and a number that grows */
constexpr std::uint64_t kClearUs = 5'000'000;

/* Polled, the manager would drop a netlink socket whose queue overran, and a connection to a tarnd
 * that has ended with what is still in it. */
bool store(std::string_view name, int fd) {
  const std::string state = fmt::format("FDSTORE=1\nFDNAME={}\nFDPOLL=0", name);
  const int sent = sd_pid_notify_with_fds(0, 0, state.c_str(), &fd, 1);
  if (sent > 0) return true;
  say(Level::kWarning, "",
      system_error(-sent,
                   "the service manager does not keep the channel, so a restart will leave "
                   "a gap")
          .text);
  return false;
}

class ManagerStore : public ChannelStore {
 public:
  static std::unique_ptr<ManagerStore> open();

  Former take() override;
  bool has_former() const override { return !former_.channels.empty(); }
  void keep(int channel, int lock) override;
  bool keeps() const override { return keeps_; }
  void drop_former() override;
  void clear() override;

 private:
  ManagerStore() = default;
  static void remove(const std::string &name);

  Former former_;
  std::vector<std::string> former_names_;
  std::string name_; /* of this process's channel */
  bool has_lock_ = false;
  std::atomic<bool> keeps_ = false;
};

std::unique_ptr<ManagerStore> ManagerStore::open() {
  std::unique_ptr<ManagerStore> made(new ManagerStore);
  char **names = nullptr;
  const int count = sd_listen_fds_with_names(1, &names);
  if (count < 0)
    say(Level::kWarning, "", system_error(-count, "what the service manager has kept").text);
  std::vector<std::pair<std::string, UniqueFd>> channels;
  for (int i = 0; i < count; ++i) {
    UniqueFd fd(SD_LISTEN_FDS_START + i);
    const std::string name = names[i];
    if (name == kLock)
      made->former_.lock = std::move(fd);
    else if (name.starts_with(kChannel))
      channels.emplace_back(name, std::move(fd));
    std::free(names[i]);
  }
  std::free(names);
  made->has_lock_ = static_cast<bool>(made->former_.lock);
  std::sort(channels.begin(), channels.end(),
            [](const auto &a, const auto &b) { return a.first < b.first; });
  for (auto &[name, fd] : channels) {
    made->former_names_.push_back(name);
    made->former_.channels.push_back(std::move(fd));
  }
  return made;
}

ChannelStore::Former ManagerStore::take() {
  return std::exchange(former_, {});
}

void ManagerStore::keep(int channel, int lock) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  name_ = fmt::format("{}{:020}", kChannel, now.count());
  // A lock that was inherited is there already.
  keeps_ = (has_lock_ || store(kLock, lock)) && store(name_, channel);
  has_lock_ = true;
}

void ManagerStore::remove(const std::string &name) {
  tell_manager("FDSTOREREMOVE=1\nFDNAME=" + name);
}

void ManagerStore::drop_former() {
  for (const std::string &name : former_names_) remove(name);
  former_names_.clear();
}

void ManagerStore::clear() {
  former_ = {};
  if (name_.empty() && former_names_.empty() && !has_lock_) return;
  drop_former();
  if (!name_.empty()) remove(name_);
  if (has_lock_) remove(std::string(kLock));
  name_.clear();
  has_lock_ = false;
  keeps_ = false;
  if (const int done = sd_notify_barrier(0, kClearUs); done < 0)
    say(Level::kWarning, "", system_error(-done, "the service manager does not answer").text);
}

}  // namespace

void tell_manager(const std::string &state) {
  // An error means that the manager has gone: it will not be told the next time either.
  (void)sd_notify(0, state.c_str());
}

std::unique_ptr<ChannelStore> open_manager_store() {
  if (!std::getenv("NOTIFY_SOCKET")) return nullptr;
  return ManagerStore::open();
}

}  // namespace tarn
