/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The lists of directories and the paths that the matchers are measured with. The same at every
 * run.
 */
#ifndef BENCH_PATHS_H
#define BENCH_PATHS_H

#include <string>
#include <vector>

/* The most directories in a list. */
inline constexpr unsigned kMostDirs = 10000;
/* How many paths a measurement goes round; a power of two. */
inline constexpr unsigned kPaths = 256;

/* `count` directories, evenly from the tree of kMostDirs; none is inside another. */
std::vector<std::string> bench_dirs(unsigned count);
/* kPaths paths of 40 to 120 bytes that are one of the directories or lie below one. */
std::vector<std::string> hit_paths(const std::vector<std::string> &dirs);
/* kPaths paths of 40 to 120 bytes that are not: siblings of the directories, names that go on where
 * a directory's name ends, and other places. */
std::vector<std::string> miss_paths(const std::vector<std::string> &dirs);

/* A path and, as the peers want it, the same with a '/' behind it. */
struct BenchPath {
  std::string plain, slashed;
};
std::vector<BenchPath> with_slashes(const std::vector<std::string> &paths);

#endif
