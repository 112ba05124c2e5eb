// SPDX-License-Identifier: GPL-2.0
// A path against the directories of one rule, and against many rules of one directory each.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "bench/bench.h"
#include "bench/fixture.h"
#include "bench/kernel_side.h"
#include "bench/paths.h"
#include "bench/peers.h"

namespace {

struct MatcherFree {
  void operator()(uk_bench_matcher *matcher) const { uk_bench_matcher_free(matcher); }
};

// A list of directories, compiled by all three, and the paths to look up in it.
struct List {
  explicit List(unsigned count)
      : dirs(bench_dirs(count)),
        re2(dirs),
        hyperscan(dirs),
        hit(with_slashes(hit_paths(dirs))),
        miss(with_slashes(miss_paths(dirs))) {
    std::vector<const char *> texts;
    for (const std::string &dir : dirs) texts.push_back(dir.c_str());
    matcher.reset(uk_bench_matcher_new(texts.data(), static_cast<unsigned>(texts.size())));
    if (!matcher) fail(fmt::format("the list of {} directories does not compile", count));
  }

  std::vector<std::string> dirs;
  std::unique_ptr<uk_bench_matcher, MatcherFree> matcher;
  Re2Peer re2;
  HyperscanPeer hyperscan;
  std::vector<BenchPath> hit, miss;
};

bool covers(const std::string &dir, const std::string &path) {
  return path.compare(0, dir.size(), dir) == 0 &&
         (path.size() == dir.size() || path[dir.size()] == '/');
}

// The directories that cover a path, found the plain way.
std::vector<int> expected(const List &list, const std::string &path) {
  std::vector<int> found;
  for (size_t i = 0; i < list.dirs.size(); i++) {
    if (covers(list.dirs[i], path)) found.push_back(static_cast<int>(i));
  }
  return found;
}

std::vector<int> sorted(std::vector<int> ids) {
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<int> rule_hits(const std::string &path) {
  unsigned ids[32];
  const int count = uk_bench_hits(path.c_str(), ids);
  return sorted(std::vector<int>(ids, ids + std::max(count, 0)));
}

void check_list(List &list, bool as_rules, const std::vector<BenchPath> &paths, bool hit) {
  for (const BenchPath &path : paths) {
    const std::vector<int> wanted = expected(list, path.plain);
    bool right = wanted.empty() != hit && list.re2.match(path.slashed) == hit &&
                 list.hyperscan.match(path.slashed) == hit &&
                 (uk_bench_match(list.matcher.get(), path.plain.c_str()) == 1) == hit;
    if (as_rules) {
      right = right && sorted(list.re2.hits(path.slashed)) == wanted &&
              sorted(list.hyperscan.hits(path.slashed)) == wanted &&
              rule_hits(path.plain) == wanted;
    }
    if (!right) fail(fmt::format("the engines do not agree on {}", path.plain));
  }
}

// Goes round the paths.
template <typename Call>
void run(benchmark::State &state, const std::vector<BenchPath> &paths, Call call) {
  unsigned next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(call(paths[next]));
    next = (next + 1) % kPaths;
  }
}

template <typename Call>
void add(const std::string &name, const std::vector<BenchPath> &paths, Call call) {
  benchmark::RegisterBenchmark(
      name.c_str(), [&paths, call](benchmark::State &state) { run(state, paths, call); });
}

void add_dirs(List &list, const char *what, const std::vector<BenchPath> &paths) {
  const std::string name = fmt::format("dirs/{}/{}/", list.dirs.size(), what);
  add(name + "tarn", paths, [&list](const BenchPath &path) {
    return uk_bench_match(list.matcher.get(), path.plain.c_str());
  });
  add(name + "re2", paths, [&list](const BenchPath &path) { return list.re2.match(path.slashed); });
  add(name + "hyperscan", paths,
      [&list](const BenchPath &path) { return list.hyperscan.match(path.slashed); });
}

void add_rules(List &list, const char *what, const std::vector<BenchPath> &paths) {
  const std::string name = fmt::format("rules/{}/{}/", list.dirs.size(), what);
  benchmark::RegisterBenchmark((name + "tarn").c_str(), [&](benchmark::State &state) {
    bench_kernel().install_rules(list.dirs);
    run(state, paths,
        [](const BenchPath &path) { return uk_bench_hits(path.plain.c_str(), nullptr); });
  });
  add(name + "re2", paths,
      [&list](const BenchPath &path) { return list.re2.hits(path.slashed).size(); });
  add(name + "hyperscan", paths,
      [&list](const BenchPath &path) { return list.hyperscan.hits(path.slashed).size(); });
}

}  // namespace

void add_match_benchmarks() {
  static std::vector<std::unique_ptr<List>> lists;
  for (const unsigned count : {1u, 32u, 1000u, 10000u}) {
    const bool as_rules = count <= 1000;
    List &list = *lists.emplace_back(std::make_unique<List>(count));
    if (as_rules) bench_kernel().install_rules(list.dirs);
    check_list(list, as_rules, list.hit, true);
    check_list(list, as_rules, list.miss, false);
    add_dirs(list, "hit", list.hit);
    add_dirs(list, "miss", list.miss);
    if (!as_rules) continue;
    add_rules(list, "hit", list.hit);
    add_rules(list, "miss", list.miss);
  }
}
