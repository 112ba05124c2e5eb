// SPDX-License-Identifier: GPL-2.0
// Rule texts: any text compiles or is refused, and what it compiles to gives every path the verdict
// that a plain reading of the text gives it. Input: the text, and behind NULs further paths to try.
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/fuzz_kernel.h"
#include "fuzz/uk_fuzz.h"
#include "tests/oracle/plain_rules.h"

namespace {

// What a rule record has room for, and no more entries than the plain reading can take in good
// time.
constexpr std::size_t kTextMax = 4000;
constexpr unsigned kIncluded = 32768, kMiss = 65535;

// A copy that ends where its allocation ends, so that a read behind it is seen.
std::unique_ptr<char[]> exact(const std::string &text) {
  auto copy = std::make_unique<char[]>(text.size() + 1);
  text.copy(copy.get(), text.size());
  return copy;
}

class Pattern {
 public:
  explicit Pattern(const std::string &text) : pattern_(uk_fuzz_pattern_new(exact(text).get())) {}
  ~Pattern() { uk_fuzz_pattern_free(pattern_); }
  Pattern(const Pattern &) = delete;
  Pattern &operator=(const Pattern &) = delete;

  explicit operator bool() const { return pattern_ != nullptr; }
  bool covers(const std::string &path) const {
    const unsigned verdict = uk_fuzz_pattern_match(pattern_, exact(path).get());
    fuzz::check(verdict == kIncluded || verdict == kMiss, "a final state");
    return verdict == kIncluded;
  }

 private:
  uk_fuzz_pattern *pattern_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Kernel &kernel = fuzz::Kernel::get();
  const std::string input(reinterpret_cast<const char *>(data), size);
  const std::string text = input.substr(0, std::min(input.find('\0'), kTextMax));
  {
    const Pattern pattern(text);
    fuzz::check(static_cast<bool>(pattern), "a text that compiles");
    const oracle::PlainRules plain(text);
    const auto same = [&](const std::string &path) {
      fuzz::check_equal(pattern.covers(path), plain.covers(path), path.c_str());
    };
    for (const std::string &directory : plain.directories()) {
      same(directory);
      same(directory + "/");
      same(directory + "/x");
      same(directory + "x");
      if (!directory.empty()) same(directory.substr(0, directory.size() - 1));
      same(directory.substr(0, directory.rfind('/')));
    }
    same("");
    same("/");
    for (std::size_t at = text.size(); at < input.size();) {
      const std::size_t end = std::min(input.find('\0', at + 1), input.size());
      same(input.substr(at + 1, end - at - 1));
      at = end;
    }
  }
  kernel.check_leaks();
  return 0;
}
