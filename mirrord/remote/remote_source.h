/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A source on another host, which a SourceServer there answers for. While it does not answer, every
 * call fails with -EHOSTDOWN, and whoever applies an entry tries it again later.
 *
 * An object is known by its path, device and inode. When its path has another one, what is asked of
 * it fails with -ENOENT, as if it had been removed: records of later changes tell, and the engine
 * copies what the path has then. That an object was changed while it was read shows in its status
 * before and after, as with a local one; an inode that was freed and used again does too.
 *
 * Many statuses come in one answer: those of a directory's entries and of the paths that were
 * announced by expect(). Each is used once. They are at least as new as the entry that is being
 * applied, and what was changed since has a record behind it.
 */
#ifndef TARN_MIRRORD_REMOTE_REMOTE_SOURCE_H
#define TARN_MIRRORD_REMOTE_REMOTE_SOURCE_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mirrord/remote/protocol.h"
#include "mirrord/remote/requests.h"
#include "mirrord/source.h"

namespace tarn {

/* Questions with numbers, and their answers. */
class Conversation {
 public:
  explicit Conversation(Requests &requests) : requests_(requests) {}

  /* The answer, of the kind that belongs to the question. `message` gets its bytes. A host that has
   * kept somebody waiting in vain is not asked for a second: whoever goes over many objects would
   * wait as long for each. */
  Result<remote::Answer> ask(const remote::Question &question, std::vector<std::byte> &message);
  template <class Kind>
  Result<Kind> ask(const remote::Question &question, std::vector<std::byte> &message) {
    auto answer = ask(question, message);
    if (!answer) return answer.error();
    return std::move(std::get<Kind>(*answer));
  }

  /* The clock over there, as far as the answers tell. */
  Result<std::int64_t> now();

 private:
  using Clock = std::chrono::steady_clock;
  struct Heard {
    std::int64_t now; /* in the answer that came `at` */
    Clock::time_point at;
    std::int64_t at_present() const;
  };

  Result<remote::Answer> ask_once(const remote::Question &question,
                                  std::vector<std::byte> &message);

  Requests &requests_;
  std::uint64_t number_ = 0;
  std::optional<Heard> heard_;
  bool silent_ = false; /* the last question got no answer in time */
  Clock::time_point ask_again_{};
  std::string silence_; /* the error until then */
};

class RemoteSource final : public Source {
 public:
  explicit RemoteSource(Requests &requests) : conversation_(requests) {}

  /* What it cannot answer is an error of the other calls. */
  bool available() override;
  Result<std::optional<Object>> find(const std::string &path) override;
  Result<std::optional<Object>> child(const Object &directory,
                                      const DirectoryEntry &entry) override;
  Result<std::vector<DirectoryEntry>> entries(const Object &directory) override;
  void expect(const std::vector<std::string> &paths) override;
  Result<std::unique_ptr<SourceFile>> open(const Object &file) override;
  Result<std::optional<Xattrs>> xattrs(const Object &object) override;
  bool has_name(const struct stat &object, const std::string &path) override;
  Result<std::int64_t> now() override;

 private:
  using Ahead = std::map<std::string, remote::Found>;

  Result<remote::Found> ask_for(const std::vector<std::string> &paths, Ahead &ahead);

  Conversation conversation_;
  std::vector<std::string> expected_;
  std::size_t next_expected_ = 0;
  Ahead ahead_; /* of these */
};

}  // namespace tarn

#endif
