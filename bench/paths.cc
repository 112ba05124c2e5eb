// SPDX-License-Identifier: GPL-2.0
#include "bench/paths.h"

#include <fmt/format.h>

#include <array>
#include <random>

namespace {

constexpr size_t kLongest = 120;

constexpr std::array<const char *, 20> kTeams = {
    "accounting", "archive", "billing",   "build",   "catalogue", "claims",    "design",
    "dispatch",   "export",  "finance",   "imaging", "inventory", "logistics", "marketing",
    "payroll",    "quality", "reporting", "sales",   "support",   "warehouse"};

constexpr std::array<const char *, 8> kTails = {
    "/README",
    "/src/main.c",
    "/data/2026/11/21/orders.csv",
    "/var/spool/incoming/queue.db",
    "/documents/contracts/signed/scan-000417.pdf",
    "/.git/objects/3f/9c0d1e8a7b6c5d4e3f2a1b0c9d8e7f6a5b4c3d",
    "/tmp/.~lock.report.odt#",
    "/www/htdocs/images/thumbnails/large.jpeg"};

constexpr std::array<const char *, 6> kElsewhere = {
    "/home/alice/documents/letters",        "/var/lib/postgresql/15/main/base",
    "/srv/backup/nightly/2026-11-21",       "/usr/share/doc/packages/common",
    "/srv/projects.old/accounting/site-00", "/opt/application/releases/current/lib"};

std::string dir_name(unsigned number) {
  return fmt::format("/srv/projects/{}/site-{:02}/customer-{:05}",
                     kTeams[number / (kMostDirs / kTeams.size())], number / 50 % 10, number);
}

std::string parent_of(const std::string &dir) {
  return dir.substr(0, dir.rfind('/'));
}

template <typename Make>
std::vector<std::string> make_paths(Make make) {
  std::mt19937 random(20261121);
  std::vector<std::string> paths;
  for (unsigned i = 0; i < kPaths; i++) {
    std::string path = make(i, random) + kTails[random() % kTails.size()];
    if (path.size() < 40) path += "/and/a/little/further/down";
    if (path.size() > kLongest) path.resize(kLongest);
    paths.push_back(path);
  }
  return paths;
}

}  // namespace

std::vector<std::string> bench_dirs(unsigned count) {
  std::vector<std::string> dirs;
  for (unsigned i = 0; i < count; i++) dirs.push_back(dir_name(i * (kMostDirs / count)));
  return dirs;
}

std::vector<std::string> hit_paths(const std::vector<std::string> &dirs) {
  std::vector<std::string> paths =
      make_paths([&dirs](unsigned, std::mt19937 &random) { return dirs[random() % dirs.size()]; });
  for (unsigned i = 0; i < kPaths; i += 16) paths[i] = dirs[i % dirs.size()];
  return paths;
}

std::vector<std::string> miss_paths(const std::vector<std::string> &dirs) {
  return make_paths([&dirs](unsigned i, std::mt19937 &random) -> std::string {
    const std::string &dir = dirs[random() % dirs.size()];
    if (i % 3 == 0) return fmt::format("{}/customer-{}", parent_of(dir), 20000 + random() % 10000);
    if (i % 3 == 1) return dir + "-old";
    return kElsewhere[random() % kElsewhere.size()];
  });
}

std::vector<BenchPath> with_slashes(const std::vector<std::string> &paths) {
  std::vector<BenchPath> result;
  for (const std::string &path : paths) result.push_back({path, path + '/'});
  return result;
}
