// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/kernel.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <vector>

#include "tarnd/process/task.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {
namespace {

// The host's limit of descriptors is what bounds them: each directory that was read once, and is
// remembered, has a file open inside the kernel.
TEST(KernelTest, users_open_more_files_than_its_memory_has_room_for) {
  constexpr size_t kFiles = 30000;
  const auto kernel = Kernel::boot();
  ASSERT_TRUE(kernel);
  Identity user;
  user.uid = user.gid = 65534;
  {
    const Task task(user);
    const ActAs act(task);
    uk_node *root = nullptr;
    ASSERT_EQ(uk_node_at("/", &root), 0);
    std::vector<uk_file *> files;
    int error = 0;
    while (!error && files.size() < kFiles) {
      uk_file *file = nullptr;
      error = uk_open(root, O_RDONLY | UK_O_DIRECTORY, &file);
      if (!error) files.push_back(file);
    }
    EXPECT_EQ(error, 0);
    EXPECT_EQ(files.size(), kFiles);
    for (uk_file *file : files) uk_release(file);
    uk_node_put(root, 1);
  }
}

}  // namespace
}  // namespace tarnd
