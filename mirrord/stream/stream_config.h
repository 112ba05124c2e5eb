/* SPDX-License-Identifier: GPL-2.0 */
/* Which stream carries a source's log to other hosts, and how its servers are reached. Plain
 * values; mirrord.toml(5) describes the keys. */
#ifndef TARN_MIRRORD_STREAM_STREAM_CONFIG_H
#define TARN_MIRRORD_STREAM_STREAM_CONFIG_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarn {

struct StreamConfig {
  std::vector<std::string> servers{}; /* nats://HOST:PORT, tls://HOST:PORT */
  std::string stream{};               /* its name, a word */
  std::string credentials{};          /* a file; "": none */
  /* Files in PEM, all three or none: both sides show a certificate, with TLS 1.3. */
  std::string ca{}, certificate{}, key{};
  std::uint64_t replicas = 1;                       /* copies in the cluster of servers */
  std::uint64_t max_bytes = std::uint64_t{1} << 30; /* of the stream on a server's disk */
  bool compress = false;
};

}  // namespace tarn

#endif
