/* SPDX-License-Identifier: GPL-2.0 */
/* What the cases of replicate.c are written with: programs that run and what they print, waiting
 * for something to come true, and comparing two trees. Everything fails the case that cannot go on.
 */
#ifndef TESTS_GUEST_REPLICATE_RUN_H
#define TESTS_GUEST_REPLICATE_RUN_H

#include <sys/types.h>

/* A program that runs in the background; its stdout and stderr go to the file. */
struct program {
  pid_t pid;
  const char *output;
};

/* `arguments` begins with the program's path and ends with null. Killed if the caller ends first.
 */
void start_program(struct program *program, const char *output, const char *const *arguments);
/* Its exit status, or 128 + the signal that ended it. */
int end_of_program(struct program *program);

/* The exit status of a program, which is run to its end; its stdout and stderr are in kOutput. */
int run(const char *const *arguments);
#define RUN(...) run((const char *const[]){__VA_ARGS__, NULL})
extern const char kOutput[];

/* How often the file holds the text. */
int says(const char *file, const char *text);
/* Waits until it does: 0 when it does not within a minute. */
int comes_to_say(const char *file, const char *text);

/* Makes changes of every kind below the directory. */
void make_changes(const char *directory);

/* The number of differences between two trees: names, types, modes, owners, sizes, contents, link
 * counts, targets. Each is printed. */
int tree_differences(const char *left, const char *right);

#endif
