// SPDX-License-Identifier: GPL-2.0
// The decoder of the module's messages against any bytes: no read outside the packet, no view
// outside it, and nothing behind the decoder that stumbles over what it accepts.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "client/messages.h"
#include "client/pages.h"
#include "client/sequence.h"

namespace {

using namespace tarn;

void check(bool holds) {
  if (!holds) std::abort();
}

bool inside(const void *data, std::size_t size, Bytes packet) {
  const auto *begin = static_cast<const std::byte *>(data);
  return size == 0 || (begin >= packet.data() && begin + size <= packet.data() + packet.size());
}

class Sink : public Sequencer::Sink {
 public:
  explicit Sink(PageFollower &pages) : pages_(pages) {}
  void record(const Record &record, Bytes, Sequencer::Order) override {
    if (!std::holds_alternative<WritePage>(record.change)) return;
    if (const auto place = pages_.follow(record); place.ok()) check(!place->path.empty());
  }
  void event(const Uuid &, const Sequencer::Event &) override {}

 private:
  PageFollower &pages_;
};

void use(const Record &record, Bytes packet) {
  check(!describe(record.change).empty());
  const std::string_view path = change_path(record.change);
  check(inside(path.data(), path.size(), packet));
  if (const auto *write = std::get_if<Write>(&record.change))
    check(inside(write->data.data(), write->data.size(), packet));
  if (const auto *page = std::get_if<WritePage>(&record.change))
    check(inside(page->data.data(), page->data.size(), packet));
  PageFollower pages;
  Sink sink(pages);
  Sequencer sequencer(sink);
  sequencer.add(record, packet, {});
  sequencer.finish();
  check(sequencer.holds_nothing());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  // A copy of exactly this size, so that a read behind its end is seen.
  const auto *bytes = reinterpret_cast<const std::byte *>(data);
  const std::vector<std::byte> packet(bytes, bytes + size);
  const auto message = decode(packet);
  if (!message) return 0;
  if (const auto *record = std::get_if<Record>(&*message)) use(*record, packet);
  return 0;
}
