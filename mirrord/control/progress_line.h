/* SPDX-License-Identifier: GPL-2.0 */
/* One line on standard error that shows how far something is; nothing if that is no terminal. */
#ifndef TARN_MIRRORD_CONTROL_PROGRESS_LINE_H
#define TARN_MIRRORD_CONTROL_PROGRESS_LINE_H

#include <string>

namespace tarn {

class ProgressLine {
 public:
  explicit ProgressLine(std::string name);
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine &) = delete;
  ProgressLine &operator=(const ProgressLine &) = delete;

  /* `done` is 0..1, negative if unknown. */
  void show(double done, const std::string &what);
  /* Before something else is printed. */
  void clear();

 private:
  const std::string name_;
  const bool terminal_;
  bool shown_ = false;
};

}  // namespace tarn

#endif
