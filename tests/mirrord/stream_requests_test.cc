// SPDX-License-Identifier: GPL-2.0
// Requests from host to host, and who may connect at all. With a real server.
#include "mirrord/stream/requests.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include "tests/mirrord/nats_kit.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;
using Payload = std::vector<std::byte>;

constexpr milliseconds kLong{30'000};

Payload bytes_of(const std::string &text) {
  const Bytes bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

Payload backwards(Bytes request) {
  return {request.rbegin(), request.rend()};
}

bool listens(const RequestServer &server) {
  return eventually([&] { return server.problem().empty(); });
}

TEST(StreamRequestsTest, BytesGoThereAndBack) {
  NatsServer server;
  Connection there(server.config(), "source"), here(server.config(), "replica");
  RequestServer answering(there, there.subject("source"), backwards);
  ASSERT_TRUE(listens(answering));
  RequestSender asking(here, here.subject("source"));
  for (const std::string &text : {std::string("abc"), std::string(), std::string("\0\xff\n", 3),
                                  std::string(900'000, 'x') + "y"}) {
    const auto reply = asking.ask(bytes_of(text), kLong);
    ASSERT_TRUE(reply) << reply.error().text;
    EXPECT_EQ(*reply, bytes_of(std::string(text.rbegin(), text.rend())));
  }
}

TEST(StreamRequestsTest, NobodyThereIsAnErrorAtOnce) {
  NatsServer server;
  Connection there(server.config(), "source"), here(server.config(), "replica");
  RequestSender asking(here, here.subject("source"));
  EXPECT_EQ(asking.ask(bytes_of("a"), kLong).error().code, -EHOSTUNREACH);
  {
    RequestServer answering(there, there.subject("source"), backwards);
    ASSERT_TRUE(listens(answering));
    EXPECT_TRUE(asking.ask(bytes_of("a"), kLong));
  }
  EXPECT_TRUE(eventually(
      [&] { return asking.ask(bytes_of("a"), milliseconds(500)).error().code == -EHOSTUNREACH; }));
}

TEST(StreamRequestsTest, ARequestThatIsTooLargeOrTakesTooLongSaysSo) {
  NatsServer server;
  Connection there(server.config(), "source"), here(server.config(), "replica");
  RequestSender asking(here, here.subject("source"));
  std::atomic<bool> go = false;
  RequestServer answering(there, there.subject("source"), [&](Bytes) {
    while (!go) std::this_thread::sleep_for(milliseconds(5));
    return Payload(3 << 20);  // more than the server takes
  });
  ASSERT_TRUE(listens(answering));
  EXPECT_EQ(asking.ask(Payload(2 << 20), kLong).error().code, -EMSGSIZE);
  EXPECT_EQ(asking.ask(bytes_of("a"), milliseconds(50)).error().code, -ETIMEDOUT);
  go = true;
  EXPECT_TRUE(eventually([&] { return !answering.problem().empty(); }));
  EXPECT_NE(answering.problem().find("3145728"), std::string::npos) << answering.problem();
}

TEST(StreamRequestsTest, AServerThatWasAwayIsServedAgain) {
  NatsServer server;
  Connection there(server.config(), "source"), here(server.config(), "replica");
  RequestServer answering(there, there.subject("source"), backwards);
  RequestSender asking(here, here.subject("source"));
  ASSERT_TRUE(listens(answering));
  for (int i = 0; i < 2; ++i) {
    server.kill();
    EXPECT_TRUE(eventually(
        [&] { return asking.ask(bytes_of("a"), milliseconds(100)).error().code == -ENOTCONN; }));
    server.start();
    EXPECT_TRUE(eventually([&] { return asking.ask(bytes_of("ab"), milliseconds(500)).ok(); }));
  }
}

/* An authority and what it has signed, made with openssl. */
class Authority {
 public:
  Authority() {
    run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=ca "
        "-keyout ca.key -out ca.pem");
    sign("server", "DNS:localhost,IP:127.0.0.1");
    sign("other", "DNS:elsewhere.example");
    sign("client", "DNS:replica");
  }
  std::string file(const std::string &name) const { return scratch_ / name; }

  std::string server(const std::string &name) const {
    return "tls { cert_file: \"" + file(name + ".pem") + "\", key_file: \"" + file(name + ".key") +
           "\", ca_file: \"" + file("ca.pem") + "\", verify: true, timeout: 5 }";
  }
  void configure(StreamConfig &config) const {
    config.ca = file("ca.pem");
    config.certificate = file("client.pem");
    config.key = file("client.key");
  }

 private:
  void sign(const std::string &name, const std::string &names) {
    std::ofstream(scratch_ / (name + ".ext")) << "subjectAltName=" << names << "\n";
    run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=" + name +
        " -keyout " + name + ".key -out " + name + ".csr");
    run("openssl x509 -req -in " + name + ".csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 " +
        "-extfile " + name + ".ext -out " + name + ".pem");
  }
  void run(const std::string &command) {
    const std::string whole = "cd " + (scratch_ / "") + " && " + command + " 2>/dev/null";
    if (std::system(whole.c_str()) != 0) throw std::runtime_error(command);
  }
  const Scratch scratch_;
};

class StreamTlsTest : public testing::Test {
 protected:
  StreamConfig config(const NatsServer &server) const {
    StreamConfig config = server.config();
    config.servers = {"tls://localhost:" + server.port()};
    authority_.configure(config);
    return config;
  }
  /* "" if it connects. */
  static std::string tried(const StreamConfig &config) {
    Connection connection(config, "test");
    const auto made = connection.get();
    return made ? "" : made.error().text;
  }
  const Authority authority_;
};

TEST_F(StreamTlsTest, BothSidesShowCertificates) {
  NatsServer server(authority_.server("server"));
  Entries entries;
  entries.append(50);
  Publishing publishing(config(server), entries);
  EXPECT_TRUE(publishing.done()) << publishing.status().error;
}

TEST_F(StreamTlsTest, AClientWithoutOrWithAForeignCertificateIsRefused) {
  NatsServer server(authority_.server("server"));
  StreamConfig plain = server.config();
  EXPECT_NE(tried(plain).find("'ca'"), std::string::npos) << tried(plain);
  const Authority foreign;
  StreamConfig wrong = config(server);
  wrong.certificate = foreign.file("client.pem");
  wrong.key = foreign.file("client.key");
  EXPECT_NE(tried(wrong), "");
}

TEST_F(StreamTlsTest, AServerOfAnotherAuthorityOrNameIsRefused) {
  NatsServer server(authority_.server("server")), other(authority_.server("other"));
  const Authority foreign;
  StreamConfig wrong = config(server);
  wrong.ca = foreign.file("ca.pem");
  EXPECT_NE(tried(wrong).find("'ca'"), std::string::npos) << tried(wrong);
  EXPECT_NE(tried(config(other)).find("name"), std::string::npos) << tried(config(other));
  EXPECT_EQ(tried(config(server)), "");
}

TEST_F(StreamTlsTest, AServerWithoutTlsIsRefused) {
  NatsServer server;
  EXPECT_NE(tried(config(server)).find("no TLS"), std::string::npos) << tried(config(server));
}

/* Suites of TLS 1.2 only: as good as a server that has nothing newer. */
TEST_F(StreamTlsTest, AnOlderTlsIsRefused) {
  const Scratch scratch;
  const std::string script = scratch / "server.py", port = scratch / "port";
  std::ofstream(script) << R"(
import socket, ssl, sys
cert, key, ca, out = sys.argv[1:5]
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(cert, key)
context.maximum_version = getattr(ssl.TLSVersion, sys.argv[5])
s = socket.socket(); s.bind(("127.0.0.1", 0)); s.listen()
open(out + ".new", "w").write(str(s.getsockname()[1]))
import os; os.rename(out + ".new", out)
while True:
    c, _ = s.accept()
    c.sendall(b'INFO {"server_id":"x","version":"2.9.0","max_payload":1048576,"headers":true,'
              b'"tls_required":true}\r\n')
    try:
        t = context.wrap_socket(c, server_side=True)
        open(out + ".shaken", "w").write(t.version())
        t.recv(1000); t.sendall(b"PONG\r\n"); t.recv(1000)
    except OSError:
        pass
)";
  for (const std::string version : {"TLSv1_3", "TLSv1_2"}) {
    const std::string out = port + version;
    const std::string command = "python3 " + script + " " + authority_.file("server.pem") + " " +
                                authority_.file("server.key") + " " + authority_.file("ca.pem") +
                                " " + out + " " + version + " 2>/dev/null & echo $! >" + out +
                                ".pid";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_TRUE(eventually([&] { return std::ifstream(out).good(); }));
    std::string number;
    std::ifstream(out) >> number;
    StreamConfig config;
    config.servers = {"tls://localhost:" + number};
    config.stream = "data";
    authority_.configure(config);
    const std::string error = tried(config);
    std::string shaken;
    std::ifstream(out + ".shaken") >> shaken;
    EXPECT_EQ(shaken, version == "TLSv1_3" ? "TLSv1.3" : "") << error;
    EXPECT_EQ(error.empty(), version == "TLSv1_3") << error;
    EXPECT_EQ(std::system(("kill $(cat " + out + ".pid)").c_str()), 0);
  }
}

TEST_F(StreamTlsTest, FilesThatAreMissingAreNamed) {
  NatsServer server(authority_.server("server"));
  StreamConfig wrong = config(server);
  wrong.key = "/nonexistent/key.pem";
  EXPECT_NE(tried(wrong).find("/nonexistent/key.pem"), std::string::npos) << tried(wrong);
  wrong = config(server);
  wrong.credentials = "/nonexistent/user.creds";
  EXPECT_NE(tried(wrong).find("creds"), std::string::npos) << tried(wrong);
}

}  // namespace
}  // namespace tarn::test
