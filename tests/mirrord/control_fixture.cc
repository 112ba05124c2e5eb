// SPDX-License-Identifier: GPL-2.0
#include "tests/mirrord/control_fixture.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "mirrord/control/commands.h"
#include "mirrord/control/socket.h"

namespace tarn::test {

ControlDirectory::ControlDirectory() {
  const char *base = std::getenv("TMPDIR");
  path_ = std::string(base ? base : "/tmp") + "/tarn-control.XXXXXX";
  if (!mkdtemp(path_.data()) || chmod(path_.c_str(), 0755) != 0)
    throw std::runtime_error("cannot make a directory");
}

ControlDirectory::~ControlDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ServiceReport sample_report() {
  TargetReport copy{.name = "copy", .directory = "/srv/copy", .state = "equal", .last_error = ""};
  copy.position = 11;
  copy.applied = 10;
  TargetReport usb{.name = "usb", .directory = "/media/a b", .state = "copying", .last_error = ""};
  usb.position = 5;
  usb.lag_entries = 6;
  usb.lag_bytes = 3 << 20;
  usb.lag_seconds = 90;
  usb.applied = 4;
  usb.failures = 3;
  usb.skipped = 2;
  usb.progress = 0.25;
  usb.seconds_left = 7200;
  usb.bytes_per_second = 2.5 * (1 << 20);
  SourceReport data{.name = "data",
                    .directory = "/srv/data",
                    .rule = "6F9619FF-8B86-D011-B42D-00C04FC964FF",
                    .last_gap = "records 3 to 4",
                    .targets = {copy, usb}};
  data.captured = 12;
  data.logged = 9;
  data.gaps = 1;
  data.log_bytes = 4096;
  data.log_limit = 1 << 30;
  data.log_first = 1;
  data.log_end = 11;
  data.log_durable = 10;
  data.log_age_seconds = 3.5;
  SourceReport home{
      .name = "home",
      .directory = "/home",
      .rule = "",
      .last_gap = "",
      .targets = {
          {.name = "far", .directory = "/srv/far", .state = "following", .last_error = ""}}};
  return {.pid = 77,
          .version = "1.2.3",
          .uptime_seconds = 100000,
          .connected = true,
          .connection_error = "",
          .sources = {data, home}};
}

ServiceReport FakeService::report() {
  static_cast<void>(note("report", {}));
  return says;
}

std::vector<std::string> FakeService::calls() {
  const MutexLock lock(mutex_);
  return calls_;
}

Result<void> FakeService::note(const std::string &verb, const TargetName &name) {
  const MutexLock lock(mutex_);
  calls_.push_back(verb + " " + name.source + "/" + name.target);
  return outcome;
}

Result<void> FakeService::last(const Progress &progress) {
  lasting = true;
  do {
    if (!progress(0.5, "half way")) {
      told_gone = true;
      return Error{-ECANCELED, "told to end"};
    }
    if (lasts) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  } while (lasts);
  return {};
}

Result<void> FakeService::wait(const TargetName &name, std::chrono::milliseconds timeout,
                               const Progress &progress) {
  auto noted = note("wait " + std::to_string(timeout.count()), name);
  if (auto lasted = last(progress); !lasted) return lasted;
  return noted;
}

Result<void> FakeService::pause(const TargetName &name) {
  return note("pause", name);
}
Result<void> FakeService::resume(const TargetName &name) {
  return note("resume", name);
}
Result<void> FakeService::resync(const TargetName &name) {
  return note("resync", name);
}

Result<std::string> FakeService::skip(const TargetName &name) {
  if (auto noted = note("skip", name); !noted) return noted.error();
  return std::string("entry 5: a write to a/b");
}

Result<void> FakeService::retire(const TargetName &name) {
  return note("retire", name);
}

Result<std::vector<Difference>> FakeService::verify(const TargetName &name, bool repair,
                                                    const Progress &progress) {
  auto noted = note(repair ? "repair" : "verify", name);
  if (auto lasted = last(progress); !lasted) return lasted.error();
  if (!noted) return noted.error();
  return differences;
}

RawClient::RawClient(const std::string &socket) {
  auto connected = connect_control(socket);
  if (!connected) throw std::runtime_error(connected.error().text);
  fd_ = std::move(*connected);
}

bool RawClient::send(const std::string &bytes) const {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t now = ::send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (now < 0 && errno != EAGAIN) return false;
    if (now > 0) sent += static_cast<std::size_t>(now);
    pollfd room{fd_.get(), POLLOUT, 0};
    poll(&room, 1, 1000);
  }
  return true;
}

bool RawClient::closed() const {
  pollfd end{fd_.get(), 0, 0};
  return poll(&end, 1, 0) == 1 && (end.revents & POLLHUP) != 0;
}

void RawClient::end_sending() const {
  shutdown(fd_.get(), SHUT_WR);
}

std::string RawClient::line() {
  for (;;) {
    if (const std::size_t end = in_.find('\n'); end != std::string::npos) {
      std::string line = in_.substr(0, end);
      in_.erase(0, end + 1);
      return line;
    }
    pollfd data{fd_.get(), POLLIN, 0};
    if (poll(&data, 1, 60'000) != 1) throw std::runtime_error("no answer");
    char part[65536];
    const ssize_t got = recv(fd_.get(), part, sizeof(part), 0);
    if (got < 0 && errno == EAGAIN) continue;
    if (got <= 0) return std::exchange(in_, "");
    in_.append(part, static_cast<std::size_t>(got));
  }
}

nlohmann::json RawClient::ask(const std::string &request) {
  send(request + "\n");
  return answer();
}

int run_words(std::vector<std::string> words) {
  CLI::App app("test", "mirrord");
  ControlCommands commands(app, [](const ControlCommands::Place &place) -> Result<std::string> {
    if (!place.state_directory.empty()) return place.state_directory + "/s.sock";
    if (place.config.empty()) return Error{-ENOENT, "/etc/none.toml: there is no such file"};
    return place.config + ".sock";
  });
  try {
    std::reverse(words.begin(), words.end());  // as CLI11 takes them
    app.parse(std::move(words));
  } catch (const CLI::ParseError &error) {
    std::cerr << error.what() << "\n";
    return error.get_exit_code() == 0 ? 0 : 2;
  }
  return commands.run().value_or(-1);
}

CommandEnd run_command(std::vector<std::string> words) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  CommandEnd end;
  end.exit = run_words(std::move(words));
  std::cout.flush();
  end.out = testing::internal::GetCapturedStdout();
  end.err = testing::internal::GetCapturedStderr();
  return end;
}

}  // namespace tarn::test
