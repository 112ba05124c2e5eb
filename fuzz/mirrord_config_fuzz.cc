// SPDX-License-Identifier: GPL-2.0
// Any text is a configuration or ends in lines that say why not. Input: the text.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/text_file.h"
#include "base/unique_fd.h"
#include "mirrord/config/config.h"

namespace {

void check(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const tarn::UniqueFd fd(memfd_create("config", MFD_CLOEXEC));
  check(static_cast<bool>(fd));
  check(tarn::write_text(fd.get(), {reinterpret_cast<const char *>(data), size}) == 0);
  const std::string file = "/proc/self/fd/" + std::to_string(fd.get());
  const tarn::ReadConfig read = tarn::read_config_with_problems(file);
  for (const tarn::Error &problem : read.problems) {
    check(problem.text.starts_with(file) || problem.text.starts_with("cannot read"));
    check(problem.text.find('\n') == std::string::npos);
  }
  if (!read.problems.empty()) return 0;
  check(!read.config.sources.empty());
  for (const tarn::SourceConfig &source : read.config.sources) {
    check(source.directory.starts_with('/') && !source.name.empty() && !source.targets.empty());
    for (const std::string &exclude : source.exclude)
      check(exclude.starts_with(source.directory) && exclude.size() > source.directory.size());
  }
  return 0;
}
