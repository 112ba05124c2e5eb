// SPDX-License-Identifier: GPL-2.0
// The control socket's place: who may listen there, and what may lie there already.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "base/run_dir.h"
#include "mirrord/control/client.h"
#include "tests/mirrord/control_fixture.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class ControlSocketTest : public ControlTest {
 protected:
  int code(const std::string &socket) {
    const auto server = ControlServer::open(socket, service_);
    return server ? 0 : server.error().code;
  }
  static mode_t mode(const std::string &path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }
};

TEST_F(ControlSocketTest, only_its_user_may_connect_whatever_the_umask) {
  for (const mode_t mask : {0, 077}) {
    const mode_t old = umask(mask);
    serve();
    umask(old);
    EXPECT_EQ(mode(socket_), 0600U);
    EXPECT_EQ(mode(socket_ + ".lock") & 077, 0U);
    server_.reset();
    EXPECT_FALSE(fs::exists(socket_));
  }
}

TEST_F(ControlSocketTest, a_living_service_is_not_replaced) {
  serve();
  const auto second = ControlServer::open(socket_, service_);
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code, -EBUSY);
  EXPECT_TRUE(RawClient(socket_).ask(R"({"verb":"status"})").contains("result"));
}

TEST_F(ControlSocketTest, another_programs_socket_is_not_replaced) {
  for (const int type : {SOCK_STREAM, SOCK_SEQPACKET, SOCK_DGRAM}) {
    const UniqueFd directory(open(dir_.path().c_str(), O_PATH | O_CLOEXEC));
    const UniqueFd other(socket(AF_UNIX, type, 0));
    const auto address = socket_address(directory.get(), "mirrord.sock");
    ASSERT_TRUE(address.ok());
    ASSERT_EQ(bind(other.get(), reinterpret_cast<const sockaddr *>(&*address), sizeof(*address)),
              0);
    ASSERT_EQ(type == SOCK_DGRAM ? 0 : listen(other.get(), 0), 0);
    for (int i = 0; i < 3; ++i)  // until its queue is full, too
      EXPECT_EQ(code(socket_), -EBUSY) << type;
    fs::remove(socket_);
  }
}

TEST_F(ControlSocketTest, a_stale_socket_is_replaced) {
  {
    const UniqueFd directory(open(dir_.path().c_str(), O_PATH | O_CLOEXEC));
    const UniqueFd killed(socket(AF_UNIX, SOCK_STREAM, 0));
    const auto address = socket_address(directory.get(), "mirrord.sock");
    ASSERT_EQ(bind(killed.get(), reinterpret_cast<const sockaddr *>(&*address), sizeof(*address)),
              0);
    ASSERT_EQ(listen(killed.get(), 1), 0);
  }
  ASSERT_TRUE(fs::exists(socket_));
  serve();
  EXPECT_TRUE(RawClient(socket_).ask(R"({"verb":"status"})").contains("result"));
}

TEST_F(ControlSocketTest, what_is_no_socket_is_left) {
  std::ofstream(socket_) << "precious";
  EXPECT_EQ(code(socket_), -EEXIST);
  EXPECT_EQ(fs::file_size(socket_), 8U);
  fs::remove(socket_);
  fs::create_symlink("elsewhere", socket_);
  EXPECT_EQ(code(socket_), -EEXIST);
  EXPECT_TRUE(fs::is_symlink(socket_));
  fs::remove(socket_);
  fs::create_directory(socket_);
  EXPECT_EQ(code(socket_), -EEXIST);
  EXPECT_EQ(code(socket_ + "/"), -EINVAL);
}

TEST_F(ControlSocketTest, a_lock_that_is_a_link_is_not_followed) {
  fs::create_symlink(dir_ / "elsewhere", socket_ + ".lock");
  EXPECT_EQ(code(socket_), -ELOOP);
  EXPECT_FALSE(fs::exists(dir_ / "elsewhere"));
}

TEST_F(ControlSocketTest, a_directory_that_others_can_write_is_refused) {
  for (const mode_t mode : {0775, 0757, 01777}) {
    ASSERT_EQ(chmod(dir_.path().c_str(), mode), 0);
    EXPECT_EQ(code(socket_), -EPERM);
    EXPECT_TRUE(fs::is_empty(dir_.path()));
  }
  ASSERT_EQ(chmod(dir_.path().c_str(), 0700), 0);
  EXPECT_EQ(code(socket_), 0);
  if (geteuid() != 0) return;
  ASSERT_EQ(chown(dir_.path().c_str(), 65534, 65534), 0);
  EXPECT_EQ(code(socket_), -EPERM);
}

TEST_F(ControlSocketTest, its_directory_is_made_but_not_the_ones_above) {
  EXPECT_EQ(code(dir_ / "run/mirrord.sock"), 0);
  EXPECT_EQ(mode(dir_ / "run"), geteuid() == 0 ? 0755U : 0700U);
  EXPECT_EQ(code(dir_ / "missing/run/mirrord.sock"), -ENOENT);
  EXPECT_FALSE(fs::exists(dir_ / "missing"));
}

TEST_F(ControlSocketTest, its_path_may_be_long) {
  const std::string directory = dir_ / std::string(200, 'd');
  const std::string path = directory + "/mirrord.sock";
  const auto server = ControlServer::open(path, service_);
  ASSERT_TRUE(server.ok()) << server.error().text;
  EXPECT_TRUE(RawClient(path).ask(R"({"verb":"status"})").contains("result"));
  EXPECT_EQ(code(dir_ / std::string(100, 'n')), -ENAMETOOLONG);
}

TEST_F(ControlSocketTest, a_socket_that_took_its_place_is_left_at_the_end) {
  serve();
  fs::remove(socket_);
  std::ofstream(socket_) << "another";
  server_.reset();
  EXPECT_TRUE(fs::exists(socket_));
}

TEST_F(ControlSocketTest, who_cannot_connect_is_told_what_to_do) {
  const auto none = ControlClient::connect(socket_);
  ASSERT_FALSE(none.ok());
  EXPECT_EQ(none.error().code, -ENOENT);
  EXPECT_NE(none.error().text.find("systemctl start mirrord"), std::string::npos);
  EXPECT_EQ(ControlClient::connect(dir_ / "missing/sock").error().code, -ENOENT);
}

}  // namespace
}  // namespace tarn
