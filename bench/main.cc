// SPDX-License-Identifier: GPL-2.0
// The benchmark program; report.py runs it and makes a table of what it prints.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "bench/bench.h"
#include "bench/fixture.h"

void fail(const std::string &why) {
  fprintf(stderr, "tarn_bench: %s\n", why.c_str());
  _Exit(1);
}

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  bench_kernel();
  try {
    add_match_benchmarks();
  } catch (const std::exception &error) {
    fail(error.what());
  }
  add_capture_benchmarks();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
