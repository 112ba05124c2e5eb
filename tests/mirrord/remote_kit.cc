// SPDX-License-Identifier: GPL-2.0
#include "tests/mirrord/remote_kit.h"

#include <cerrno>
#include <chrono>
#include <thread>

namespace tarn::test {

std::vector<std::byte> Line::answer_locked(Bytes question) {
  auto answer = server_.answer(question);
  moved_ += answer.size();
  return answer;
}

Result<std::vector<std::byte>> Line::ask(Bytes question) {
  const Error nobody{-ETIMEDOUT, "the line is cut"};
  ++asked_;
  if (cut_) return nobody;
  MutexLock lock(mutex_);
  const unsigned one_of = disturbed_;
  const bool disturbed = one_of != 0 && random_() % one_of == 0;
  const unsigned kind = disturbed ? static_cast<unsigned>(random_() % 6) : 6;
  if (kind == 0) lost_ = 4;
  if (lost_ > 0) {  // the question was, and some after it
    --lost_;
    return nobody;
  }
  auto answer = answer_locked(question);
  if (cut_ || kind == 1) return nobody;  // the answer was
  if (kind == 2) answer = answer_locked(question);
  if (kind == 3) std::this_thread::sleep_for(std::chrono::milliseconds(random_() % 20));
  if (kind == 4) answer[random_() % answer.size()] ^= std::byte{0x10};
  if (kind == 5 && !former_.empty()) std::swap(former_, answer);
  former_ = answer;
  return answer;
}

SourceServer::Options serving(const std::string &directory, const RuleDirectories &lists) {
  return {
      .directory = directory,
      .included = [directory, scope = RuleScope(lists)](
                      const std::string &path) { return scope.includes(directory + "/" + path); },
      .walk = [](const remote::WalkQuestion &) { return Result<void>(); },
      .mark = [] { return Result<std::uint64_t>(std::uint64_t{7}); },
      .report = [](const remote::ReportQuestion &) {},
      .again = [](const remote::AgainQuestion &) { return Result<bool>(false); }};
}

}  // namespace tarn::test
