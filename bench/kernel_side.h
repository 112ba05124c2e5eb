/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the benchmarks reach inside the kernel image that they carry: the matcher, the rule set and
 * the builder of write records, as the module has them. Built-in types only. Everything acts as the
 * current task (uk_task_enter). Results are 0 or a negative error number unless said otherwise.
 */
#ifndef BENCH_KERNEL_SIDE_H
#define BENCH_KERNEL_SIDE_H

extern "C" {

/* The automaton of a rule that includes these directories. Null when it cannot be built. */
struct uk_bench_matcher;
struct uk_bench_matcher *uk_bench_matcher_new(const char *const *dirs, unsigned count);
void uk_bench_matcher_free(struct uk_bench_matcher *matcher);
/* 1 when the path is included, else 0. */
int uk_bench_match(const struct uk_bench_matcher *matcher, const char *path);

/* Installs rule number `id` for one directory; the set's own result codes. */
int uk_bench_rule_add(unsigned id, const char *dir);
void uk_bench_rules_flush(void);
/*
 * Looks up the rules that a path hits, as every captured change does, and gives them back. Their
 * number; `ids`, unless null, gets the numbers of at most 32.
 */
int uk_bench_hits(const char *path, unsigned *ids);

/* Captures a write on an open file of a tarn mount, without doing it: the record's way alone. */
struct uk_file;
int uk_bench_write_sync(struct uk_file *file, const void *buf, unsigned long len,
                        unsigned long long offset);
}

#endif
