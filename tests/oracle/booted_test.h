/* SPDX-License-Identifier: GPL-2.0 */
/* A booted kernel with the module around each test, and what is random in a test. */
#ifndef TESTS_ORACLE_BOOTED_TEST_H
#define TESTS_ORACLE_BOOTED_TEST_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "fuzz/fuzz_kernel.h"

namespace oracle {

class Booted : public testing::Test {
 protected:
  void SetUp() override { fuzz::Kernel::get(); }
};

/* How much longer than by default a test tries: ORACLE_EFFORT, 1 when it is not set. */
inline int effort() {
  const char *given = std::getenv("ORACLE_EFFORT");
  return given ? std::max(1, std::atoi(given)) : 1;
}

/* The same numbers in every run of a test, unless ORACLE_SEED says otherwise. */
class Random {
 public:
  Random() : engine_(seed()) {}
  int below(int limit) { return static_cast<int>(engine_() % static_cast<unsigned>(limit)); }
  bool one_in(int count) { return below(count) == 0; }
  std::string bytes(int count) {
    std::string out;
    while (count-- > 0) out += static_cast<char>(below(256));
    return out;
  }

 private:
  static unsigned seed() {
    const char *given = std::getenv("ORACLE_SEED");
    return given ? static_cast<unsigned>(std::atoi(given)) : 1u;
  }
  std::mt19937 engine_;
};

}  // namespace oracle

#endif
