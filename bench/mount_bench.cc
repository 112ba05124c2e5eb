// SPDX-License-Identifier: GPL-2.0
// One measurement of a directory as a program sees it, whatever serves it; mounts.py runs this over
// and over and compares. Prints nanoseconds per operation.
//
// usage: mount_bench WORKLOAD DIRECTORY
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t kBlock = 4096;
constexpr size_t kChunk = 128 << 10;
constexpr size_t kFileBytes = 32 << 20;
constexpr size_t kBlocks = kFileBytes / kBlock;
constexpr size_t kChunks = kFileBytes / kChunk;
constexpr size_t kRandomOperations = 2000;
constexpr size_t kNames = 1000;

alignas(4096) char buffer[kChunk];

[[noreturn]] void fail(const std::string &what) {
  std::fprintf(stderr, "mount_bench: %s: %s\n", what.c_str(), std::strerror(errno));
  std::_Exit(EXIT_FAILURE);
}

void require(bool good, const char *what) {
  if (!good) fail(what);
}

double ns_per_operation(size_t operations, const std::function<void(size_t)> &operation) {
  const auto start = std::chrono::steady_clock::now();
  for (size_t i = 0; i < operations; i++) operation(i);
  const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
  return time.count() / static_cast<double>(operations);
}

class File {
 public:
  File(const std::string &path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
    if (fd_ < 0) fail(path);
  }
  ~File() { close(fd_); }
  File(const File &) = delete;
  File &operator=(const File &) = delete;

  void write_at(size_t offset, size_t size) const {
    require(pwrite(fd_, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size),
            "write");
  }
  void read_at(size_t offset, size_t size) const {
    require(pread(fd_, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size),
            "read");
  }

 private:
  int fd_;
};

std::vector<size_t> random_blocks() {
  std::vector<size_t> blocks(kBlocks);
  for (size_t i = 0; i < kBlocks; i++) blocks[i] = i;
  std::shuffle(blocks.begin(), blocks.end(), std::mt19937_64(1));
  return blocks;
}

double write_random() {
  const std::vector<size_t> blocks = random_blocks();
  const File file("data", O_WRONLY);
  return ns_per_operation(kRandomOperations,
                          [&](size_t i) { file.write_at(blocks[i] * kBlock, kBlock); });
}

double read_random() {
  const std::vector<size_t> blocks = random_blocks();
  const File file("data", O_RDONLY);
  return ns_per_operation(kRandomOperations,
                          [&](size_t i) { file.read_at(blocks[i] * kBlock, kBlock); });
}

double write_sequential() {
  const File file("data", O_WRONLY);
  return ns_per_operation(kChunks, [&](size_t i) { file.write_at(i * kChunk, kChunk); });
}

double read_sequential() {
  const File file("data", O_RDONLY);
  return ns_per_operation(kChunks, [&](size_t i) { file.read_at(i * kChunk, kChunk); });
}

std::vector<std::string> names(const std::string &stem) {
  std::vector<std::string> all;
  for (size_t i = 0; i < kNames; i++) all.push_back(stem + std::to_string(i));
  return all;
}

double create() {
  const std::vector<std::string> files = names("file");
  return ns_per_operation(kNames, [&](size_t i) {
    const File file(files[i], O_WRONLY | O_CREAT | O_EXCL);
    file.write_at(0, 1024);
  });
}

double stat_each() {
  const std::vector<std::string> files = names("file");
  struct stat st;
  return ns_per_operation(kNames,
                          [&](size_t i) { require(lstat(files[i].c_str(), &st) == 0, "stat"); });
}

double chmod_each() {
  const std::vector<std::string> files = names("file");
  return ns_per_operation(kNames,
                          [&](size_t i) { require(chmod(files[i].c_str(), 0600) == 0, "chmod"); });
}

double rename_each() {
  const std::vector<std::string> from = names("file"), to = names("moved");
  return ns_per_operation(
      kNames, [&](size_t i) { require(rename(from[i].c_str(), to[i].c_str()) == 0, "rename"); });
}

double unlink_each() {
  const std::vector<std::string> files = names("moved");
  return ns_per_operation(kNames,
                          [&](size_t i) { require(unlink(files[i].c_str()) == 0, "unlink"); });
}

// What the other measurements of data work on; it takes part in none.
double fill() {
  const File file("data", O_WRONLY | O_CREAT | O_EXCL);
  return ns_per_operation(kChunks, [&](size_t i) { file.write_at(i * kChunk, kChunk); });
}

const std::map<std::string, double (*)()> kWorkloads = {
    {"fill", fill},
    {"write_random", write_random},
    {"read_random", read_random},
    {"write_sequential", write_sequential},
    {"read_sequential", read_sequential},
    {"create", create},
    {"stat", stat_each},
    {"chmod", chmod_each},
    {"rename", rename_each},
    {"unlink", unlink_each},
};

}  // namespace

int main(int argc, char **argv) {
  const auto workload = argc == 3 ? kWorkloads.find(argv[1]) : kWorkloads.end();
  if (workload == kWorkloads.end()) {
    std::fputs("usage: mount_bench WORKLOAD DIRECTORY; the workloads:", stderr);
    for (const auto &[name, run] : kWorkloads) std::fprintf(stderr, " %s", name.c_str());
    std::fputs("\n", stderr);
    return EXIT_FAILURE;
  }
  std::memset(buffer, 'x', sizeof(buffer));
  // Names of one component, as find, rm and their like use them.
  if (chdir(argv[2]) != 0) fail(argv[2]);
  std::printf("%.1f\n", workload->second());
  return EXIT_SUCCESS;
}
