// SPDX-License-Identifier: GPL-2.0
// A daemon that does nothing with records but count them: what the channel brings at most. Says
// "registered", and ends when it has COUNT of them; a lost one is an error.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <variant>

#include "client/daemon.h"
#include "client/messages.h"
#include "client/site.h"

namespace {

int fail(const std::string &text) {
  fprintf(stderr, "count_records: %s\n", text.c_str());
  return 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) return fail("usage: count_records COUNT");
  const std::uint64_t wanted = std::strtoull(argv[1], nullptr, 10);
  auto channel = tarn::DaemonChannel::open(tarn::find_site(), tarn::Claim::kRefuseIfTaken);
  if (!channel) return fail(channel.error().text);
  puts("registered");
  fflush(stdout);
  for (std::uint64_t counted = 0; counted < wanted;) {
    const auto received = (*channel)->receive(tarn::DaemonChannel::Milliseconds(-1));
    if (!received) return fail(received.error().text);
    if (received->lost != 0 || received->closed) return fail("records were lost");
    for (const tarn::Bytes packet : received->packets) {
      const auto message = tarn::decode(packet);
      if (!message) return fail(message.error().text);
      const auto *record = std::get_if<tarn::Record>(&*message);
      counted += record && record->last();
    }
  }
  return 0;
}
