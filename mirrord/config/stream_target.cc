// SPDX-License-Identifier: GPL-2.0
#include "mirrord/config/stream_target.h"

#include <algorithm>
#include <charconv>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

constexpr std::string_view kServersForm =
    "an array of \"nats://HOST:PORT\" or \"tls://HOST:PORT\", at least one";
constexpr std::string_view kStreamForm = "at most 64 of A-Z, a-z, 0-9, '_' and '-'";
constexpr std::size_t kStreamNameMax = 64;
constexpr std::int64_t kReplicasMax = 5;
/* One message of each replica's lag has to fit many times. */
constexpr std::uint64_t kMaxBytesMin = 64 << 20;

bool is_word(std::string_view text) {
  return !text.empty() && text.size() <= kStreamNameMax &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '_' || c == '-';
         });
}

/* The host of SCHEME://HOST:PORT; "" if it is none. Users and passwords have no place there. */
std::string_view host_of(std::string_view server) {
  for (const std::string_view scheme : {"nats://", "tls://"}) {
    if (!server.starts_with(scheme)) continue;
    server.remove_prefix(scheme.size());
    const std::size_t colon = server.rfind(':');
    if (colon == std::string_view::npos) return {};
    const std::string_view port = server.substr(colon + 1), host = server.substr(0, colon);
    unsigned number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    const bool good = error == std::errc{} && end == port.data() + port.size() && number > 0 &&
                      number < 65536 && host.find_first_of("/@ ?#") == std::string_view::npos;
    return good ? host : std::string_view();
  }
  return {};
}

bool is_loopback(std::string_view host) {
  return host == "localhost" || host == "[::1]" || host.starts_with("127.");
}

void read_servers(Section &section, StreamConfig &stream) {
  const toml::array *array = section.array("servers", kServersForm);
  if (!array) {
    if (!section.find("servers")) section.missing("servers", kServersForm);
    return;
  }
  if (array->empty())
    section.problem(line_of(array->source()),
                    fmt::format("servers is empty; expected {}", kServersForm));
  for (const toml::node &node : *array) {
    const auto given = section.text_of("servers", node, kServersForm);
    if (!given) continue;
    if (host_of(given->value).empty())
      section.problem(given->line, fmt::format("servers has {}; expected {}",
                                               printable(given->value), kServersForm));
    else
      stream.servers.push_back(given->value);
  }
}

void read_name(Section &section, StreamConfig &stream) {
  const auto name = section.text("stream", kStreamForm);
  if (!name) {
    if (!section.find("stream")) section.missing("stream", kStreamForm);
  } else if (!is_word(name->value)) {
    section.problem(name->line, fmt::format("stream {} is no name of a stream; expected {}",
                                            printable(name->value), kStreamForm));
  } else {
    stream.stream = name->value;
  }
}

/* What other hosts may read and send has to be known to come from them. */
void read_identity(Section &section, StreamConfig &stream) {
  const auto file = [&](std::string_view key, std::string &to) {
    auto path = section.path(key, "the absolute path of a file", Section::LookUp::kPerhapsLater);
    if (path) to = std::move(path->value);
    return section.find(key) != nullptr;
  };
  file("credentials", stream.credentials);
  const int given = (file("ca", stream.ca) ? 1 : 0) +
                    (file("certificate", stream.certificate) ? 1 : 0) +
                    (file("key", stream.key) ? 1 : 0);
  if (given == 3) return;
  if (given != 0)
    return section.problem(section.line(),
                           "ca, certificate and key belong together; expected all three");
  const bool local = std::all_of(stream.servers.begin(), stream.servers.end(),
                                 [](const auto &server) { return is_loopback(host_of(server)); });
  if (!local)
    section.problem(section.line(),
                    "servers on other hosts are reached with TLS only; expected "
                    "ca, certificate and key");
}

}  // namespace

StreamConfig read_stream(Section &section) {
  StreamConfig stream;
  read_servers(section, stream);
  read_name(section, stream);
  read_identity(section, stream);
  return stream;
}

StreamTargetConfig read_stream_target(Section &section, NameLines &names) {
  StreamTargetConfig target;
  target.line = section.line();
  target.name = read_name(section, names);
  target.stream = read_stream(section);
  StreamConfig &stream = target.stream;
  stream.replicas = section.count("replicas", kReplicasMax).value_or(stream.replicas);
  stream.max_bytes = section.size("max-bytes", kMaxBytesMin).value_or(stream.max_bytes);
  constexpr std::string_view kCompressions = "\"none\" or \"zstd\"";
  if (const auto given = section.text("compression", kCompressions)) {
    stream.compress = given->value == "zstd";
    if (!stream.compress && given->value != "none")
      section.problem(given->line, fmt::format("compression {} is unknown; expected {}",
                                               printable(given->value), kCompressions));
  }
  section.end();
  return target;
}

}  // namespace tarn
