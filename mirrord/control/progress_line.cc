// SPDX-License-Identifier: GPL-2.0
#include "mirrord/control/progress_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include <fmt/format.h>

#include "base/print_error.h"
#include "mirrord/control/report_text.h"

namespace tarn {
namespace {

constexpr char kClearLine[] = "\r\033[K";

std::size_t terminal_width() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

/* Not in the middle of a UTF-8 character. */
void cut(std::string &text, std::size_t length) {
  if (text.size() <= length) return;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) --length;
  text.resize(length);
}

}  // namespace

ProgressLine::ProgressLine(std::string name)
    : name_(std::move(name)), terminal_(isatty(STDERR_FILENO) == 1) {}

void ProgressLine::show(double done, const std::string &what) {
  if (!terminal_) return;
  const std::string percent =
      done >= 0 ? fmt::format("{:.0f} %  ", std::min(done, 1.0) * 100) : std::string();
  std::string line = fmt::format("{}: {}{}", name_, percent, one_line(what));
  cut(line, terminal_width() - 1);
  print_error("{}{}", kClearLine, line);
  shown_ = true;
}

void ProgressLine::clear() {
  if (shown_) print_error("{}", kClearLine);
  shown_ = false;
}

}  // namespace tarn
