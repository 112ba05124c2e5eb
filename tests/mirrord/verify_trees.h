/* SPDX-License-Identifier: GPL-2.0 */
/* Two directory trees for tests of verification and repair, in a directory that is removed. */
#ifndef TARN_TESTS_MIRRORD_VERIFY_TREES_H
#define TARN_TESTS_MIRRORD_VERIFY_TREES_H

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mirrord/verify/verify.h"

namespace tarn::test {

class TwoTrees {
 public:
  TwoTrees();
  ~TwoTrees();
  TwoTrees(const TwoTrees &) = delete;
  TwoTrees &operator=(const TwoTrees &) = delete;

  std::string source(const std::string &path = "") const { return root_ + "/source/" + path; }
  std::string target(const std::string &path = "") const { return root_ + "/target/" + path; }
  std::string beside(const std::string &path) const { return root_ + "/" + path; }

  /* Makes the target an exact copy, by another program. */
  void copy() const;

 private:
  std::string root_;
};

void write_file(const std::string &path, std::string_view text);
void write_at(const std::string &path, std::uint64_t offset, std::string_view text);
std::string read_file(const std::string &path);
struct stat status_of(const std::string &path);
bool exists(const std::string &path);
void set_time(const std::string &path, std::int64_t seconds, long nanoseconds);
void set_attribute(const std::string &path, const std::string &name, std::string_view value);
/* "" if there is none. */
std::string attribute(const std::string &path, const std::string &name);

/* "PATH KIND" of each. */
std::vector<std::string> kinds(const std::vector<Difference> &differences);

}  // namespace tarn::test

#endif
