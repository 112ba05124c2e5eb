/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Answers what replicas on other hosts ask about a source of this one (protocol.h): bytes in, bytes
 * out. Nothing is opened outside the source, no symbolic link is followed, and what the source
 * excludes does not exist for a replica. Whoever may ask reads everything else in it.
 *
 * Keeps nothing between two questions but the names of the directory that was listed last. One
 * thread at a time.
 */
#ifndef TARN_MIRRORD_REMOTE_SOURCE_SERVER_H
#define TARN_MIRRORD_REMOTE_SOURCE_SERVER_H

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mirrord/local_source.h"
#include "mirrord/remote/protocol.h"
#include "mirrord/verify/local_tree.h"

namespace tarn {

class SourceServer {
 public:
  struct Options {
    std::string directory;                 /* the source */
    std::vector<std::string> exclude = {}; /* absolute paths */
    std::uint64_t run = 0;                 /* of this process: see AboutAnswer */
    std::function<bool(const std::string &path)> included;
    /* What concerns the source's log. */
    std::function<Result<void>(const remote::WalkQuestion &question)> walk;
    std::function<Result<std::uint64_t>()> mark; /* the number of the mark that will come */
    std::function<void(const remote::ReportQuestion &report)> report;
    /* Is the entry coming again? */
    std::function<Result<bool>(const remote::AgainQuestion &question)> again;
  };
  explicit SourceServer(Options options)
      : options_(std::move(options)), source_(options_.directory) {}

  /* A question that cannot be decoded is answered too, as far as its number is known. */
  std::vector<std::byte> answer(Bytes message);

 private:
  Result<void> check_there();
  Result<LocalTree *> tree_with(const std::string &path);
  Result<std::optional<Source::Object>> find(const std::string &path);
  Result<Source::Object> find_object(const std::string &path, const remote::Object &object);
  remote::Found found_at(const std::string &path);

  Result<remote::Answer> to(const remote::NowQuestion &question);
  Result<remote::Answer> to(const remote::StatusQuestion &question);
  Result<remote::Answer> to(const remote::ListQuestion &question);
  Result<remote::Answer> to(const remote::ReadQuestion &question);
  Result<remote::Answer> to(const remote::WalkQuestion &question);
  Result<remote::Answer> to(const remote::MarkQuestion &question);
  Result<remote::Answer> to(const remote::ReportQuestion &question);
  Result<remote::Answer> to(const remote::HashQuestion &question);
  Result<remote::Answer> to(const remote::HolesQuestion &question);
  Result<remote::Answer> to(const remote::AboutQuestion &question);
  Result<remote::Answer> to(const remote::AgainQuestion &question);
  Result<void> read_pieces(SourceFile &file, const remote::ReadQuestion &question, std::size_t room,
                           remote::ReadAnswer &answer);

  const Options options_;
  LocalSource source_;
  std::optional<LocalTree> tree_;
  struct Listing {
    std::string path;
    struct stat status = {};
    std::vector<DirectoryEntry> entries;
  } listing_;                   /* the last one, while not all of it has been sent */
  std::vector<std::byte> data_; /* the pieces of the answer that is made */
};

}  // namespace tarn

#endif
