// SPDX-License-Identifier: GPL-2.0
// Whether a replica and its source are apart, by tables of mounts; tests/replicate/overlap.sh has
// real ones.
#include "mirrord/overlap.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

/* No path of these exists, so that the tables alone decide. */
std::string why(const std::string &source, const std::string &replica, const char *table) {
  const auto separate = check_overlap(source, replica, read_mount_table(table));
  return separate ? "" : separate.error().text.substr(0, separate.error().text.find(':'));
}

constexpr char kTable[] =
    "1 0 8:1 / / rw shared:1 - ext4 /dev/sda1 rw\n"
    "2 1 8:1 /no/src/sub /no/bind rw - ext4 /dev/sda1 rw\n"
    "3 1 0:40 / /no/m\\040nt rw master:1 - fuse.tarn /no/src rw\n"
    "4 1 0:40 /deep /no/deep rw - fuse.tarn /no/src rw\n"
    "5 1 8:2 / /no/src/disk rw - ext4 /dev/sdb1 rw\n"
    "6 1 8:2 /r /no/of_disk rw - ext4 /dev/sdb1 rw\n"
    "7 1 0:41 / /no/twice rw - fuse.tarn /no/deep/er rw\n"
    "8 1 0:42 / /no/over rw - tarn /no/over rw\n"
    "9 1 8:1 /no/src /no/has/it rw - ext4 /dev/sda1 rw\n";

TEST(Overlap, names_alone) {
  EXPECT_EQ(why("/no/a", "/no/b", ""), "");
  EXPECT_EQ(why("/no/a", "/no/ab", ""), "");
  EXPECT_EQ(why("/no/a", "/no/a", ""), "the replica /no/a is the source /no/a");
  EXPECT_EQ(why("/no/a", "/no/a/b", ""), "the replica /no/a/b lies inside the source /no/a");
  EXPECT_EQ(why("/no/a/b", "/no/a", ""), "the replica /no/a contains the source /no/a/b");
  EXPECT_EQ(why("/no/a/b", "/", ""), "the replica / contains the source /no/a/b");
}

TEST(Overlap, bind_mounts) {
  EXPECT_EQ(why("/no/src", "/no/bind", kTable),
            "the replica /no/bind lies inside the source /no/src");
  EXPECT_EQ(why("/no/bind/x", "/no/src/sub", kTable),
            "the replica /no/src/sub contains the source /no/bind/x");
  EXPECT_EQ(why("/no/src/other", "/no/bind", kTable), "");
  EXPECT_EQ(why("/no/src", "/no/has", kTable),
            "the replica /no/has contains /no/has/it, a mount that shows the source /no/src");
  EXPECT_EQ(why("/no/src", "/no/of_disk", kTable),
            "the replica /no/of_disk is shown inside the source /no/src by the mount /no/src/disk");
}

TEST(Overlap, mounts_of_tarn) {
  EXPECT_EQ(why("/no/src", "/no/m nt/r", kTable),
            "the replica \"/no/m nt/r\" lies inside the source /no/src");
  EXPECT_EQ(why("/no/src/a", "/no/m nt", kTable),
            "the replica \"/no/m nt\" contains the source /no/src/a");
  EXPECT_EQ(why("/no/m nt/r", "/no/src/r", kTable),
            "the replica /no/src/r is the source \"/no/m nt/r\"");
  EXPECT_EQ(why("/no/src/deep/er", "/no/twice/x", kTable),
            "the replica /no/twice/x lies inside the source /no/src/deep/er");
  EXPECT_EQ(why("/no/src/other", "/no/deep", kTable), "");
  EXPECT_EQ(why("/no/over", "/no/elsewhere", kTable), "");
  EXPECT_EQ(why("/no/over", "/no/over/r", kTable),
            "the replica /no/over/r lies inside the source /no/over");
}

}  // namespace
}  // namespace tarn
