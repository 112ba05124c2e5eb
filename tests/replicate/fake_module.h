/* SPDX-License-Identifier: GPL-2.0 */
/* What the module answers to socket options, without any kernel. The caller locks. */
#ifndef TARN_TESTS_REPLICATE_FAKE_MODULE_H
#define TARN_TESTS_REPLICATE_FAKE_MODULE_H

#include <string>
#include <vector>

namespace tarn::test {

struct FakeModule {
  int set_option(int code, const std::string &argument);
  /* `buffer`: in, the caller's bytes; out, the answer. `room`: what fits. */
  int get_option(int code, std::string &buffer, std::size_t room);

  std::vector<std::string> rules; /* whole records */
  std::vector<std::string> directories;
  std::string daemon_path;
  int forced_result = 0;            /* of every socket option, unless 0 */
  bool count_is_wrong_once = false; /* the next list request is refused */
};

/* A path as mount tables show it: blanks, control characters and backslashes as \ooo. */
std::string escaped(const std::string &path);

}  // namespace tarn::test

#endif
