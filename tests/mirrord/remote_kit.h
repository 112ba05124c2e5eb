/* SPDX-License-Identifier: GPL-2.0 */
/* A line between a replica and its source's host, in one process, that can be cut and disturbed. */
#ifndef TARN_TESTS_MIRRORD_REMOTE_KIT_H
#define TARN_TESTS_MIRRORD_REMOTE_KIT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "client/rule_scope.h"
#include "mirrord/remote/remote_source.h"
#include "mirrord/remote/source_server.h"

namespace tarn::test {

class Line : public Requests {
 public:
  explicit Line(SourceServer::Options options) : server_(std::move(options)) {}

  Result<std::vector<std::byte>> ask(Bytes question) override EXCLUDES(mutex_);

  /* Nobody answers. */
  void cut() { cut_ = true; }
  void mend() { cut_ = false; }
  /* One question of so many gets no answer, like some after it, or two, a late, a damaged or a
   * wrong one. 0: none. */
  void disturb(unsigned one_of) { disturbed_ = one_of; }
  std::uint64_t asked() const { return asked_; }
  /* The bytes of all answers. */
  std::uint64_t moved() const { return moved_; }

 private:
  std::vector<std::byte> answer_locked(Bytes question) REQUIRES(mutex_);

  std::atomic<bool> cut_ = false;
  std::atomic<unsigned> disturbed_ = 0;
  std::atomic<std::uint64_t> asked_ = 0, moved_ = 0;
  Mutex mutex_;
  SourceServer server_ GUARDED_BY(mutex_);
  std::mt19937 random_ GUARDED_BY(mutex_){4711};
  unsigned lost_ GUARDED_BY(mutex_) = 0; /* so many questions are not answered */
  std::vector<std::byte> former_ GUARDED_BY(mutex_);
};

/* What a source of these lists answers; nothing of its log. */
SourceServer::Options serving(const std::string &directory, const RuleDirectories &lists);

}  // namespace tarn::test

#endif
