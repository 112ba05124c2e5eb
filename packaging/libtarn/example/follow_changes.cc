// SPDX-License-Identifier: GPL-2.0
// follow_changes: prints the changes that programs make below the directories of the replication
// rules, in their order, and says which are missing. It is the daemon while it runs: no other
// program gets the records. Ends on SIGINT and SIGTERM.
//
//   make follow_changes && sudo ./follow_changes
#include <chrono>
#include <csignal>
#include <iostream>
#include <string>
#include <variant>

#include "base/text.h"
#include "client/daemon.h"
#include "client/sequence.h"
#include "client/signal_pipe.h"
#include "client/site.h"

namespace {

/* What is printed of each kind of change. A text is a view of the packet: it is gone after the
 * call. */
struct Describe {
  std::string operator()(const tarn::Create &c) { return "create " + tarn::printable(c.path); }
  std::string operator()(const tarn::Mkdir &c) { return "mkdir " + tarn::printable(c.path); }
  std::string operator()(const tarn::Unlink &c) { return "unlink " + tarn::printable(c.path); }
  std::string operator()(const tarn::Rmdir &c) { return "rmdir " + tarn::printable(c.path); }
  std::string operator()(const tarn::Symlink &c) { return "symlink " + tarn::printable(c.path); }
  std::string operator()(const tarn::Rename &c) {
    return "rename " + tarn::printable(c.from) + " to " + tarn::printable(c.to);
  }
  std::string operator()(const tarn::SetAttr &c) { return "setattr " + tarn::printable(c.path); }
  std::string operator()(const tarn::Write &c) {
    return "write " + tarn::printable(c.path) + ", " + std::to_string(c.data.size()) +
           " bytes at " + std::to_string(c.offset);
  }
  template <class Other>
  std::string operator()(const Other &) {
    return "another change";
  }
};

/* Gets the records in order, and what is to be said about the stream. */
class Printer : public tarn::Sequencer::Sink {
 public:
  void record(const tarn::Record &record, tarn::Bytes, tarn::Sequencer::Order) override {
    std::cout << record.wseq << ": " << std::visit(Describe(), record.change) << std::endl;
  }
  void event(const tarn::Uuid &rule, const tarn::Sequencer::Event &event) override {
    if (const auto *gap = std::get_if<tarn::Sequencer::Missing>(&event))
      std::cout << "rule " << tarn::to_string(rule) << ": records " << gap->first << " to "
                << gap->last << " are missing" << std::endl;
  }
};

int fail(const tarn::Error &error) {
  std::cerr << "follow_changes: " << error.text << '\n';
  return 1;
}

}  // namespace

int main() {
  // Where the module runs: in tarnd, or in the kernel. The rest is alike for both.
  const tarn::Site site = tarn::find_site();
  auto signals = tarn::SignalPipe::open({SIGINT, SIGTERM});
  if (!signals) return fail(signals.error());
  auto channel = tarn::DaemonChannel::open(site, tarn::Claim::kRefuseIfTaken);
  if (!channel) return fail(channel.error());
  std::cout << "registered" << std::endl;

  Printer printer;
  tarn::Sequencer sequencer(printer);
  for (;;) {
    const auto received = (*channel)->receive(std::chrono::seconds(1), (*signals)->fd());
    if (!received) return fail(received.error());
    for (const tarn::Bytes packet : received->packets) {
      const auto message = tarn::decode(packet);
      if (!message) return fail(message.error());
      if (const auto *record = std::get_if<tarn::Record>(&*message))
        sequencer.add(*record, packet, tarn::Sequencer::Clock::now());
    }
    sequencer.expire(tarn::Sequencer::Clock::now());
    if (received->woken || received->closed) break;
  }
  sequencer.finish();
  return 0;
}
