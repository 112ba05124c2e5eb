// SPDX-License-Identifier: GPL-2.0
#include "tarnd/limited_warning.h"

#include <cstdio>

namespace tarnd {

std::string LimitedWarning::line(const std::string &text, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  if (printed_ == 0 || now - begun_ >= kWhile) {
    begun_ = now;
    printed_ = 0;
  }
  if (printed_ == kAtOnce) {
    held_back_++;
    return {};
  }
  printed_++;
  std::string line = "tarnd: " + printable(text);
  if (held_back_ > 0) line += " (and " + std::to_string(held_back_) + " like it before)";
  held_back_ = 0;
  return line + '\n';
}

void LimitedWarning::print(const std::string &text) {
  std::fputs(line(text, Clock::now()).c_str(), stderr);
}

std::string printable(const std::string &text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      out += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      char octal[5];
      std::snprintf(octal, sizeof(octal), "\\%03o", byte);
      out += octal;
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace tarnd
