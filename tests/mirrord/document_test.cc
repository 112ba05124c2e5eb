// SPDX-License-Identifier: GPL-2.0
// Documents are read as they were written or refused; nothing in between.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fmt/format.h>

#include "mirrord/config/state_directory.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using Json = nlohmann::json;

class DocumentTest : public testing::Test {
 protected:
  std::string bytes() const {
    std::ifstream in(file_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void put(const std::string &bytes) const {
    std::ofstream(file_, std::ios::binary | std::ios::trunc) << bytes;
  }
  std::string refused() const {
    const auto read = read_document(file_);
    if (read) return *read ? (*read)->dump() : "nothing";
    return read.error().code == -EBADMSG ? "" : read.error().text;
  }

  TemporaryDirectory dir_;
  const std::string file_ = dir_ / "position.json";
  const Json document_ = {{"epoch", "0a"},
                          {"position", 18446744073709551615u},
                          {"list", {1, nullptr, true, "\u00e4\n"}}};
};

TEST_F(DocumentTest, what_was_written_is_read) {
  EXPECT_EQ(*read_document(file_), std::nullopt);
  ASSERT_TRUE(write_document(file_, document_).ok());
  EXPECT_EQ(**read_document(file_), document_);
  ASSERT_TRUE(write_document(file_, Json(7)).ok());
  EXPECT_EQ(**read_document(file_), Json(7)) << "a shorter one takes the place of a longer one";
  ASSERT_TRUE(write_document(file_, Json()).ok());
  EXPECT_EQ(**read_document(file_), Json());
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 1) << "nothing is left over";
  struct stat status;
  ASSERT_EQ(stat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(DocumentTest, cut_at_every_byte) {
  ASSERT_TRUE(write_document(file_, document_).ok());
  const std::string whole = bytes();
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    put(whole.substr(0, cut));
    EXPECT_EQ(refused(), "") << cut;
  }
  put(whole + "\n");
  EXPECT_EQ(refused(), "");
  put(whole);
  EXPECT_EQ(**read_document(file_), document_);
}

TEST_F(DocumentTest, every_byte_and_every_bit_flipped) {
  ASSERT_TRUE(write_document(file_, document_).ok());
  const std::string whole = bytes();
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (int mask : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
      std::string damaged = whole;
      damaged[at] = static_cast<char>(damaged[at] ^ mask);
      put(damaged);
      EXPECT_EQ(refused(), "") << at << " ^ " << mask;
    }
  }
}

TEST_F(DocumentTest, what_is_none_of_ours_is_said_with_the_remedy) {
  put("{}\n");
  EXPECT_EQ(read_document(file_).error().text,
            fmt::format("the state {0}/position.json is damaged: its checksum does not match; "
                        "restore the directory {0} as a whole, or remove it to begin with a full "
                        "copy again",
                        dir_.path()));
  fs::remove(file_);
  fs::create_directory(file_);
  EXPECT_NE(read_document(file_).error().text.find("is no regular file"), std::string::npos);
  fs::remove(file_);
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  EXPECT_NE(read_document(file_).error().text.find("is no regular file"), std::string::npos);
  fs::remove(file_);
  fs::create_symlink("elsewhere", file_);
  EXPECT_NE(read_document(file_).error().text.find("is a symbolic link"), std::string::npos);
  fs::remove(file_);
  put("");
  fs::resize_file(file_, (std::uintmax_t{64} << 20) + 1);
  EXPECT_NE(read_document(file_).error().text.find("is too long"), std::string::npos);
  EXPECT_EQ(read_document(dir_ / "none/x").value(), std::nullopt);
}

TEST_F(DocumentTest, what_cannot_be_written_leaves_the_old_one) {
  ASSERT_TRUE(write_document(file_, document_).ok());
  const auto no_text = write_document(file_, Json("\xff"));
  ASSERT_FALSE(no_text.ok());
  EXPECT_EQ(no_text.error().code, -EINVAL);
  EXPECT_EQ(**read_document(file_), document_);

  // No room for more than a part of it.
  signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlimit small{100, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const auto no_room = write_document(file_, Json(std::string(1000, 'x')));
  setrlimit(RLIMIT_FSIZE, &old);
  ASSERT_FALSE(no_room.ok());
  EXPECT_EQ(no_room.error().code, -EFBIG);
  EXPECT_EQ(no_room.error().text, fmt::format("cannot write the state {}: File too large", file_));
  EXPECT_EQ(**read_document(file_), document_);
  EXPECT_FALSE(fs::exists(file_ + ".new"));

  const auto nowhere = write_document(dir_ / "none/x", document_);
  ASSERT_FALSE(nowhere.ok());
  EXPECT_EQ(nowhere.error().code, -ENOENT);
  fs::create_directories(dir_ / "d/x");
  EXPECT_EQ(write_document(dir_ / "d", document_).error().code, -EISDIR);
  EXPECT_FALSE(fs::exists(dir_ / "d.new"));
}

TEST_F(DocumentTest, what_a_killed_writer_left_is_replaced) {
  std::ofstream(file_ + ".new") << std::string(5000, 'x');
  ASSERT_TRUE(write_document(file_, document_).ok());
  EXPECT_EQ(**read_document(file_), document_);
  fs::create_symlink(dir_ / "victim", file_ + ".new");
  EXPECT_FALSE(write_document(file_, Json(1)).ok()) << "no link is followed";
  EXPECT_FALSE(fs::exists(dir_ / "victim"));
}

}  // namespace
}  // namespace tarn
