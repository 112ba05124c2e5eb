/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A file system in memory that takes what is written and says later that it has not kept it, as one
 * over a network or with quotas does. Mounted through FUSE and served by a thread of its own; one
 * directory, whose files have no contents.
 */
#ifndef TARN_TESTS_REPLICATE_WRITE_BACK_ERROR_FS_H
#define TARN_TESTS_REPLICATE_WRITE_BACK_ERROR_FS_H

#include <memory>
#include <string>

namespace tarn::test {

class WriteBackErrorFs {
 public:
  /* When the error comes: ENOSPC when a file is closed, for those whose name begins with "full"; or
   * EIO when the kernel writes its pages back, for all. */
  enum class Says { kAtClose, kAtWriteBack };

  /* std::runtime_error if it cannot be mounted. */
  WriteBackErrorFs(const std::string &mountpoint, Says says);
  ~WriteBackErrorFs();
  WriteBackErrorFs(const WriteBackErrorFs &) = delete;
  WriteBackErrorFs &operator=(const WriteBackErrorFs &) = delete;

 private:
  struct Server;
  std::unique_ptr<Server> server_;
};

}  // namespace tarn::test

#endif
