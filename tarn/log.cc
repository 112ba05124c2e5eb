// SPDX-License-Identifier: GPL-2.0
// log: the log of the kernel that the module is in, tarnd or the running one.
#include <chrono>
#include <iostream>

#include <fmt/format.h>

#include "base/text.h"
#include "client/control.h"
#include "client/site.h"
#include "tarn/commands.h"

namespace tarn {
namespace {

constexpr std::chrono::milliseconds kWait{1000};

void show(const LogLine &line) {
  if (line.us) std::cout << utc_time(static_cast<std::int64_t>(*line.us)) << ' ';
  std::cout << fmt::format("<{}> {}\n", line.level, line.text);
}

}  // namespace

int log_command(const LogOptions &options) {
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  std::uint64_t next = 0;
  bool first = true;
  for (;;) {
    const auto wait = options.follow && !first ? kWait : std::chrono::milliseconds(0);
    const auto part = channel->log(next, wait);
    if (!part) return fail(part.error());
    for (const LogLine &line : part->lines) {
      if (line.number > next && next != 0)
        std::cerr << "tarn: some lines were overwritten before they could be shown\n";
      next = line.number + 1;
      if (line.level <= options.level) show(line);
    }
    next = std::max(next, part->next);
    std::cout.flush();
    if (!std::cout) return kExitFailed;
    if (part->lines.empty() && !options.follow) return kExitOk;
    first = false;
  }
}

}  // namespace tarn
