/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Single functions of the module for hosted programs: the fuzzers and the tests that compare with
 * an independent model. Each call acts as the current task of a booted kernel; those below the line
 * also need the module to be loaded. Buffers are the caller's and are read and written to the size
 * given, not a byte further.
 */
#ifndef FUZZ_UK_FUZZ_H
#define FUZZ_UK_FUZZ_H

#ifdef __cplusplus
extern "C" {
#endif

/* A compiled rule text, which the caller frees; null when it does not compile. */
struct uk_fuzz_pattern;
struct uk_fuzz_pattern *uk_fuzz_pattern_new(const char *text);
void uk_fuzz_pattern_free(struct uk_fuzz_pattern *pattern);
/* The final state: 32768 the path is included, 65535 not. */
unsigned uk_fuzz_pattern_match(const struct uk_fuzz_pattern *pattern, const char *path);

/* Base64Encode, Base64Decode and their lengths; the result is 1, or 0 where they return null. */
int uk_fuzz_base64_encode_len(int len, int crlf);
int uk_fuzz_base64_decode_len(int len);
int uk_fuzz_base64_encode(const void *in, int len, char *out, int *size, int crlf);
int uk_fuzz_base64_decode(const char *in, int len, char *out, int *size);

/* Blocks that the module holds now: kmalloc's and rule nodes. Always 0 in release builds. Slow. */
unsigned long uk_fuzz_blocks(void);

/* ---- with the module loaded ---- */

/* The registered daemon; 0: none. */
unsigned uk_fuzz_daemon(void);
/* How many rules a change of this path hits. */
int uk_fuzz_hits(const char *path);
/* Captures the removal of a file; what the capture says. */
int uk_fuzz_change(const char *path);
/* Tells the daemon that a rule was stopped. */
int uk_fuzz_stop_notice(const unsigned char *uuid);

#ifdef __cplusplus
}
#endif
#endif
