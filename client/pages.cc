// SPDX-License-Identifier: GPL-2.0
#include "client/pages.h"

#include <cerrno>

#include <fmt/format.h>

namespace tarn {

void PageFollower::forget(Writes::iterator write) {
  ages_.erase(write->second.age);
  writes_.erase(write);
}

void PageFollower::begin(const Key &key, const WritePage &page) {
  if (auto old = writes_.find(key); old != writes_.end()) forget(old);
  if (writes_.size() >= kOpenWrites) forget(writes_.find(ages_.front()));
  ages_.push_back(key);
  writes_.emplace(key, OpenWrite{std::string(page.path), page.offset, 0, 0, page.pages,
                                 std::prev(ages_.end())});
}

Result<PageFollower::Place> PageFollower::follow(const Record &record) {
  const auto &page = std::get<WritePage>(record.change);
  const Key key{record.rule, record.wseq};
  if (page.page == 0) begin(key, page);
  const auto found = writes_.find(key);
  if (found == writes_.end())
    return Error{-ENODATA, fmt::format("page {} of {} came without page 0, so its file is unknown",
                                       page.page, page.pages)};
  OpenWrite &write = found->second;
  if (page.page != write.next_page || page.pages != write.pages ||
      page.offset != write.start + write.bytes) {
    const Error error{
        -EBADMSG,
        fmt::format(
            "page {} of {} at offset {} does not continue {} bytes at {} (page {} of {} is next)",
            page.page, page.pages, page.offset, write.bytes, write.start, write.next_page,
            write.pages)};
    forget(found);
    return error;
  }
  ++write.next_page;
  write.bytes += page.data.size();
  Place place{write.path, write.start, write.bytes, write.next_page == write.pages};
  if (place.last) forget(found);
  return place;
}

}  // namespace tarn
