/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The matcher of paths against the directories that a rule lists, and of file names against a list
 * of extensions. The list is compiled once into an automaton; a match is one pass over the text,
 * without allocation and without a lock. Whoever holds a matchdr_t or extm_t owns it: clear it
 * before it goes away. Building allocates and may sleep; a compiled automaton is only read and may
 * be used by any number of threads.
 */
#ifndef OX_STATEMATCH_H
#define OX_STATEMATCH_H

#include "TypeDef.h"

/*
 * A state: 0..16383 the index of a byte table, 16384..32767 the number of a string record plus
 * 16384, from 32768 on final.
 */
#define STATE_STRING 16384
#define STATE_FINAL 32768
#define STATE_MISS 65535 /* final: not included */
/* The most tables and the most string records. */
#define STATE_MAX 16384
#define STATE_TABLE_LEN 256

/* A run of bytes. */
typedef struct strm {
  ox_u16_t l;     /* bytes in it */
  ox_u16_t odd;   /* parity of its position in the key */
  ox_u16_t match; /* next state when the text goes on with the run */
  ox_u16_t miss;  /* next state when not */
  ox_u8_t *ptr;
} strm_t;

/* While building: the records, each of which owns its bytes. */
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

/* Compares a record's run with the text; its `match` or its `miss`. */
typedef ox_u16_t (*strm_cmp_t)(const strm_t *record, const ox_u8_t *text);

typedef struct matchdr {
  ox_u8_t *str; /* compiled: the bytes of all runs */
  strm_t *strm; /* compiled: the records by number; `ptr` points into str */
  int skip;     /* bytes of a text or key that are left out */
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
 * Makes `m` an empty automaton, whatever it held: one that no text matches (empty_is_miss non-zero)
 * or one that every text matches.
 */
void initmatch(matchdr_t *m, int skip, int empty_is_miss, int cmp_index);
/* Gives everything back and zeroes `m`; a zeroed or half-built one too. */
void clearmatch(matchdr_t *m);

/*
 * Insert a key of `len` bytes; texts that it matches end in 32768 + tag when it is included, else
 * in 65535. addstr takes a directory's path, `len` counting its NUL, and covers the directory and
 * all below it; addwstr the same in 16-bit characters, `len` in bytes. 0, or -1 without memory or
 * room: then only clearmatch is allowed.
 */
[[nodiscard]] int addmem(matchdr_t *m, const void *key, int len, ox_u16_t tag, int include);
[[nodiscard]] int addstr(matchdr_t *m, const char *path, int len, ox_u16_t tag, int include);
[[nodiscard]] int addwstr(matchdr_t *m, const void *path, int len, ox_u16_t tag, int include);
/* Merges and packs; no key can be inserted afterwards. 0, or -1 with `m` cleared. */
[[nodiscard]] int compilematch(matchdr_t *m);

/* The start of the next entry of a rule's workdir at or behind `p`, null at its end; and that
 * entry's end. */
const char *path_head(const char *p);
const char *path_tail(const char *p);
/*
 * What the `len` characters of an entry, without its '!', stand for, into `path`, which has
 * entry_path_size(len) bytes; the path's length, up to its first NUL. An entry that does not decode
 * stands for the empty path. A longer entry needs no less room.
 */
ox_s32_t entry_path_size(int len);
unsigned long entry_path(const char *text, int len, char *path);
/*
 * Compiles a rule's workdir. An empty path stands for "/". 0, or -1 with `m` cleared.
 */
[[nodiscard]] int build_path_match(matchdr_t *m, const char *text);
/* The final state of a NUL-terminated path: 32768 included, 65535 not. */
ox_u16_t match(const matchdr_t *m, const char *path);

ox_u16_t cmpasmem(const strm_t *record, const ox_u8_t *text);
/* As cmpasmem, but a NUL in both ends the comparison. */
ox_u16_t cmpasstr(const strm_t *record, const ox_u8_t *text);

/* ---- extensions ---- */

#define EXT_ROW_LEN 128

typedef struct extm {
  ox_u16_t (*t)[EXT_ROW_LEN]; /* rows, the first is where a match starts */
  int b;                      /* 1: the listed extensions match; 0: the others do */
} extm_t;

void initext(extm_t *e);
void clearext(extm_t *e);
/* Compiles `count` extensions, without their dots. 0, or -ENOMEM with nothing kept. */
[[nodiscard]] int compileext(extm_t *e, const char *const *names, int count, int b);
/* 1 when the name matches, else 0. Letters of ASCII match in either case. */
int matchext(const extm_t *e, const char *name);

#endif
