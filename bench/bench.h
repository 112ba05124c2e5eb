/* SPDX-License-Identifier: GPL-2.0 */
/* The parts of the benchmark program: each registers its measurements. */
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <string>

/* The engines' answers are compared first; a difference ends the program. */
void add_match_benchmarks();
void add_capture_benchmarks();

/* Says why on standard error and ends the program. */
[[noreturn]] void fail(const std::string &why);

#endif
