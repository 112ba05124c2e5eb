// SPDX-License-Identifier: GPL-2.0
#include "tarn/mounting.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <thread>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "base/text.h"
#include "client/control.h"
#include "tarn/start_tarnd.h"

namespace tarn {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(10);
constexpr auto kPoll = std::chrono::milliseconds(20);

struct Connection {
  ControlChannel channel;
  bool started_here; /* no tarnd ran before, and this process has to end it */
};

/* Connects to the module of the site; starts a tarnd if none runs. */
Result<Connection> connect_or_start(const Site &site) {
  if (site.in_kernel()) {
    auto channel = ControlChannel::connect(site);
    if (!channel) return channel.error();
    return Connection{std::move(*channel), false};
  }
  const std::string &run_dir = site.run_dir;
  const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  for (;;) {
    auto channel = ControlChannel::connect(tarnd_site(run_dir));
    if (channel) return Connection{std::move(*channel), false};
    if (!no_tarnd_there(channel.error())) return channel.error();
    const auto start = start_tarnd(run_dir);
    channel = ControlChannel::connect(tarnd_site(run_dir));
    if (channel) return Connection{std::move(*channel), start.ok() && *start == Starter::kCaller};
    // A tarnd that another program has just started, or that is just ending, is not a failure yet:
    // retry.
    if (start || !tarnd_lives(run_dir) || std::chrono::steady_clock::now() > deadline)
      return start ? channel.error() : start.error();
    std::this_thread::sleep_for(kPoll);
  }
}

}  // namespace

Result<std::string> mount_directory(const std::string &path, const std::string &role) {
  std::error_code error;
  const std::filesystem::path whole = std::filesystem::canonical(path, error);
  const std::string what = fmt::format("cannot mount: the {} {}", role, printable(path));
  if (error == std::errc::no_such_file_or_directory)
    return Error{-ENOENT, what + " does not exist: create the directory first"};
  if (error) return system_error(error.value(), what);
  const bool is_directory = std::filesystem::is_directory(whole, error);
  // The dead mount of a killed tarnd; the next tarnd replaces it.
  if (error == std::errc::not_connected) return whole.string();
  if (!is_directory) return Error{-ENOTDIR, what + " is not a directory: name one"};
  return whole.string();
}

Result<void> mount_at(const Site &site, const std::string &lower, const std::string &mountpoint,
                      std::optional<double> cache) {
  std::optional<std::chrono::milliseconds> time;
  if (cache) time = std::chrono::milliseconds(std::lround(*cache * 1000));
  const auto from = mount_directory(lower, "lower directory");
  if (!from) return from.error();
  const auto at = mount_directory(mountpoint, "mount point");
  if (!at) return at.error();
  auto connection = connect_or_start(site);
  if (!connection) return connection.error();
  auto mounted = connection->channel.mount(*from, *at, time);
  // One that was just ending: the next one replaces what it has left.
  if (!mounted && mounted.error().code == -EPIPE && !connection->started_here) {
    connection = connect_or_start(site);
    if (!connection) return connection.error();
    mounted = connection->channel.mount(*from, *at, time);
  }
  if (mounted || !connection->started_here) return mounted;
  const auto stopped = stop_tarnd(site.run_dir);
  if (stopped) return mounted;
  return Error{mounted.error().code, mounted.error().text + "; " + stopped.error().text};
}

}  // namespace tarn
