/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Matches paths against a rule's directories, and file names against a list of extensions. The list
 * is compiled once into an automaton; a match is one pass over the text, without allocation and
 * without a lock. The owner of a matchdr_t or extm_t clears it before it is freed. Building
 * allocates and may sleep; any number of threads may use a compiled automaton.
 */
#ifndef OX_STATEMATCH_H
#define OX_STATEMATCH_H

#include "TypeDef.h"

/*
 * A state: 0..16383 is the index of a byte table, 16384..32767 the number of a string record plus
 * 16384, 32768 and above final.
 */
#define STATE_STRING 16384
#define STATE_FINAL 32768
#define STATE_MISS 65535 /* final: not included */
/* The largest number of tables and of string records. */
#define STATE_MAX 16384
#define STATE_TABLE_LEN 256

/* A run of bytes. */
typedef struct strm {
  ox_u16_t l;     /* length */
  ox_u16_t odd;   /* parity of its position in the key */
  ox_u16_t match; /* next state if the text continues with the run */
  ox_u16_t miss;  /* next state if not */
  ox_u8_t *ptr;
} strm_t;

/* The records while building; each owns its bytes. */
typedef struct strhlp {
  strm_t **str;
  int nstr; /* capacity */
  int cstr; /* in use */
} strhlp_t;

/* The byte tables; merged ones are null. */
typedef struct tblhlp {
  ox_u16_t **tbl;
  int ntbl; /* capacity */
  int ctbl; /* in use */
} tblhlp_t;

/* Compares a record's run with the text. Returns the record's `match` or `miss`. */
typedef ox_u16_t (*strm_cmp_t)(const strm_t *record, const ox_u8_t *text);

typedef struct matchdr {
  ox_u8_t *str; /* compiled: the bytes of all runs */
  strm_t *strm; /* compiled: the records by number; `ptr` points into str */
  int skip;     /* leading bytes of texts and keys to ignore */
  ox_u16_t start;
  tblhlp_t th;
  strhlp_t sh; /* empty once compiled */
  strm_cmp_t cmp;
} matchdr_t;

/* Indices of the comparison functions. */
enum strm_cmp_index {
  CMP_MEM = 0,    /* cmpasmem */
  CMP_STR = 1,    /* cmpasstr */
  CMP_STR_ALT = 2 /* cmpasstr */
};

/*
 * Makes `m` an empty automaton without freeing its former contents. No text matches it if
 * empty_is_miss is non-zero, else every text.
 */
void initmatch(matchdr_t *m, int skip, int empty_is_miss, int cmp_index);
/* Frees everything and zeroes `m`, which may be zeroed or half-built. */
void clearmatch(matchdr_t *m);

/*
 * Insert a key of `len` bytes; texts that match it end in state 32768 + tag if it is included, else
 * in 65535. addstr takes a directory's path, `len` counting its NUL, and covers the directory and
 * all below it; addwstr the same in 16-bit characters, `len` in bytes. Return 0, or -1 without
 * memory or room: then only clearmatch is allowed.
 */
[[nodiscard]] int addmem(matchdr_t *m, const void *key, int len, ox_u16_t tag, int include);
[[nodiscard]] int addstr(matchdr_t *m, const char *path, int len, ox_u16_t tag, int include);
[[nodiscard]] int addwstr(matchdr_t *m, const void *path, int len, ox_u16_t tag, int include);
/* Merges and packs; no key can be inserted afterwards. Returns 0, or -1 with `m` cleared. */
[[nodiscard]] int compilematch(matchdr_t *m);

/* The start of the next entry of a rule's workdir at or after `p`, null at its end; and the entry's
 * end. */
const char *path_head(const char *p);
const char *path_tail(const char *p);
/*
 * Decodes the `len` characters of an entry, without its '!', into `path`, which has
 * entry_path_size(len) bytes. Returns the path's length, up to its first NUL. An invalid entry
 * decodes to the empty path. entry_path_size() is monotonic.
 */
ox_s32_t entry_path_size(int len);
unsigned long entry_path(const char *text, int len, char *path);
/*
 * Compiles a rule's workdir. An empty path stands for "/". Returns 0, or -1 with `m` cleared.
 */
[[nodiscard]] int build_path_match(matchdr_t *m, const char *text);
/* Returns the final state of a NUL-terminated path: 32768 if included, 65535 if not. */
ox_u16_t match(const matchdr_t *m, const char *path);

ox_u16_t cmpasmem(const strm_t *record, const ox_u8_t *text);
/* Like cmpasmem, but ends at a NUL in both. */
ox_u16_t cmpasstr(const strm_t *record, const ox_u8_t *text);

/* ---- extensions ---- */

#define EXT_ROW_LEN 128

typedef struct extm {
  ox_u16_t (*t)[EXT_ROW_LEN]; /* rows; a match starts at the first */
  int b;                      /* 1: the listed extensions match; 0: the others do */
} extm_t;

void initext(extm_t *e);
void clearext(extm_t *e);
/* Compiles `count` extensions, without their dots. Returns 0, or -ENOMEM with everything freed. */
[[nodiscard]] int compileext(extm_t *e, const char *const *names, int count, int b);
/* Returns 1 if the name matches, else 0. ASCII letters match in either case. */
int matchext(const extm_t *e, const char *name);

#endif
