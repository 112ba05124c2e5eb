// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/journal.h"

#include <cstdlib>
#include <memory>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "base/text.h"

namespace tarn {
namespace {

/* The manager sets JOURNAL_STREAM if stderr leads to its journal. */
std::shared_ptr<spdlog::logger> make_logger() {
  auto logger = std::make_shared<spdlog::logger>("mirrord",
                                                 std::make_shared<spdlog::sinks::stderr_sink_mt>());
  logger->set_pattern(std::getenv("JOURNAL_STREAM") ? "%v" : "%Y-%m-%dT%H:%M:%S.%e %v");
  logger->flush_on(spdlog::level::info);
  return logger;
}

const char *priority(Level level) {
  if (!std::getenv("JOURNAL_STREAM")) return "";
  switch (level) {
    case Level::kError:
      return "<3>";
    case Level::kWarning:
      return "<4>";
    case Level::kNotice:
      break;
  }
  return "<5>";
}

}  // namespace

void say(Level level, const std::string &about, const std::string &text) {
  static const std::shared_ptr<spdlog::logger> logger = make_logger();
  const std::string subject = about.empty() ? "" : printable(about) + ": ";
  logger->info("{}mirrord: {}{}", priority(level), subject, text);
}

}  // namespace tarn
