/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Follows the page messages of large writes. Only page 0 names the file, so the path is stored for
 * the later pages; the data is not. Pages of several writes may be interleaved. One thread. Memory:
 * the paths of at most kOpenWrites unfinished writes; the oldest is dropped first.
 */
#ifndef TARN_CLIENT_PAGES_H
#define TARN_CLIENT_PAGES_H

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <utility>

#include "client/messages.h"

namespace tarn {

class PageFollower {
 public:
  struct Place {
    std::string path;
    std::uint64_t start; /* offset of the whole write */
    std::uint64_t bytes; /* data of this page and of those before it */
    bool last;           /* the write is complete */
  };

  /* `record` must hold a WritePage. Errors: the page does not continue a write whose page 0 was
   * seen. */
  Result<Place> follow(const Record &record);

  std::size_t unfinished() const { return writes_.size(); }

  static constexpr std::size_t kOpenWrites = 1024;

 private:
  using Key = std::pair<Uuid, std::uint32_t>;
  struct OpenWrite {
    std::string path;
    std::uint64_t start;
    std::uint64_t bytes;
    std::uint32_t next_page;
    std::uint32_t pages;
    std::list<Key>::iterator age;
  };
  using Writes = std::map<Key, OpenWrite>;

  void begin(const Key &key, const WritePage &page);
  void forget(Writes::iterator write);

  Writes writes_;
  std::list<Key> ages_; /* oldest first */
};

}  // namespace tarn

#endif
