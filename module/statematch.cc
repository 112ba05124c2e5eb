// SPDX-License-Identifier: GPL-2.0
#include "statematch.h"

#include "base64.h"
#include "cmempub.h"
#include "kernel.h"
#include "ox_guard.h"

namespace {

const int kGrow = 256;

static_assert(STATE_TABLE_LEN == 256, "a table has an entry for every byte");

/* Kinds of states: a table, a record, or final. */
bool is_table(ox_u16_t state) {
  return state < STATE_STRING;
}
bool is_record(ox_u16_t state) {
  return state >= STATE_STRING && state < STATE_FINAL;
}
bool is_final(ox_u16_t state) {
  return state >= STATE_FINAL;
}

const strm_cmp_t scmps[] = {cmpasmem, cmpasstr, cmpasstr};

/* Makes room for one more pointer. Returns the array, or null without memory. */
template <typename T>
T **grown(T **array, int used, int &capacity) {
  if (used < capacity) return array;
  T **larger = static_cast<T **>(_malloc_((capacity + kGrow) * sizeof(T *)));
  if (!larger) return nullptr;
  if (array) memcpy(larger, array, capacity * sizeof(T *));
  kfree(array);
  capacity += kGrow;
  return larger;
}

bool checkmtbl(tblhlp_t *th) {
  if (th->ctbl >= STATE_MAX) return false;
  ox_u16_t **array = grown(th->tbl, th->ctbl, th->ntbl);
  if (!array) return false;
  th->tbl = array;
  return true;
}

/* Adds a table with all entries `value`. Returns its number, or -1. */
int addmtbl(tblhlp_t *th, ox_u16_t value) {
  if (!checkmtbl(th)) return -1;
  ox_u16_t *table = static_cast<ox_u16_t *>(_malloc_(STATE_TABLE_LEN * sizeof(ox_u16_t)));
  if (!table) return -1;
  for (int i = 0; i < STATE_TABLE_LEN; ++i) table[i] = value;
  th->tbl[th->ctbl] = table;
  return th->ctbl++;
}

void free_record(strm_t *record) {
  if (!record) return;
  kfree(record->ptr);
  kfree(record);
}

/* Adds a record for the run. Returns its number, or -1. */
int addmstr(strhlp_t *sh, const ox_u8_t *run, int len, int odd, ox_u16_t match, ox_u16_t miss) {
  if (sh->cstr >= STATE_MAX || len > 65535) return -1;
  strm_t **array = grown(sh->str, sh->cstr, sh->nstr);
  if (!array) return -1;
  sh->str = array;
  ox_owner<strm_t, free_record> record(static_cast<strm_t *>(_malloc_(sizeof(strm_t))));
  if (!record) return -1;
  record->ptr = static_cast<ox_u8_t *>(_malloc_(len));
  if (!record->ptr) return -1;
  memcpy(record->ptr, run, len);
  record->l = static_cast<ox_u16_t>(len);
  record->odd = static_cast<ox_u16_t>(odd & 1);
  record->match = match;
  record->miss = miss;
  sh->str[sh->cstr] = record.release();
  return sh->cstr++;
}

void clearmstr(strhlp_t *sh) {
  for (int i = 0; i < sh->cstr; ++i) free_record(sh->str[i]);
  kfree(sh->str);
  memset(sh, 0, sizeof(*sh));
}

void clearmtbl(tblhlp_t *th) {
  for (int i = 0; i < th->ctbl; ++i) kfree(th->tbl[i]);
  kfree(th->tbl);
  memset(th, 0, sizeof(*th));
}

/* A position in a key that is being inserted. */
struct key_cursor {
  const ox_u8_t *key;
  int len;
  int at;
  /* The byte at `at + ahead`; NUL after the key's end. */
  ox_u8_t byte(int ahead = 0) const { return at + ahead < len ? key[at + ahead] : 0; }
  int left() const { return len - at; }
};

/*
 * Splits a record at the first byte that differs from the key, or at the key's end. Returns the
 * slot where the key continues, or null without memory. `slot` contains the record's state; `same`
 * is less than the run's length.
 */
ox_u16_t *split_record(matchdr_t *m, ox_u16_t *slot, int same, key_cursor &cursor) {
  strm_t *record = m->sh.str[*slot - STATE_STRING];
  const int number = addmtbl(&m->th, record->miss);
  if (number < 0) return nullptr;
  ox_u16_t *table = m->th.tbl[number];
  const ox_u8_t differs = record->ptr[same];
  const int rest = record->l - same - 1;
  if (rest == 0) {
    table[differs] = record->match;
  } else if (same == 0) {
    table[differs] = *slot; /* the record itself, without its first byte */
  } else {
    const int tail = addmstr(&m->sh, record->ptr + same + 1, rest, record->odd + same + 1,
                             record->match, record->miss);
    if (tail < 0) return nullptr;
    table[differs] = static_cast<ox_u16_t>(STATE_STRING + tail);
  }

  if (same == 0) {
    memmove(record->ptr, record->ptr + 1, rest);
    record->l = static_cast<ox_u16_t>(rest);
    record->odd ^= 1;
    *slot = static_cast<ox_u16_t>(number);
  } else {
    record->l = static_cast<ox_u16_t>(same);
    record->match = static_cast<ox_u16_t>(number);
  }
  slot = &table[cursor.byte(same)];
  cursor.at += same + 1;
  return slot;
}

/* The length of the common prefix of the record's run and the rest of the key. */
int common_prefix(const strm_t *record, const key_cursor &cursor) {
  const int most = min(static_cast<int>(record->l), cursor.left());
  int same = 0;
  while (same < most && record->ptr[same] == cursor.byte(same)) ++same;
  return same;
}

}  // namespace

ox_u16_t cmpasmem(const strm_t *record, const ox_u8_t *text) {
  if (record->l == 1) return record->ptr[0] == text[0] ? record->match : record->miss;
  return memcmp(record->ptr, text, record->l) == 0 ? record->match : record->miss;
}

ox_u16_t cmpasstr(const strm_t *record, const ox_u8_t *text) {
  if (record->l == 1) return record->ptr[0] == text[0] ? record->match : record->miss;
  return strncmp(reinterpret_cast<const char *>(record->ptr), reinterpret_cast<const char *>(text),
                 record->l) == 0
             ? record->match
             : record->miss;
}

void initmatch(matchdr_t *m, int skip, int empty_is_miss, int cmp_index) {
  memset(m, 0, sizeof(*m));
  m->skip = skip;
  m->start = empty_is_miss ? STATE_MISS : STATE_FINAL;
  m->cmp = scmps[cmp_index];
}

void clearmatch(matchdr_t *m) {
  kfree(m->str);
  kfree(m->strm);
  clearmstr(&m->sh);
  clearmtbl(&m->th);
  memset(m, 0, sizeof(*m));
}

int addmem(matchdr_t *m, const void *key, int len, ox_u16_t tag, int include) {
  const ox_u16_t value = include ? static_cast<ox_u16_t>(STATE_FINAL + tag) : STATE_MISS;
  key_cursor cursor = {static_cast<const ox_u8_t *>(key), len, m->skip};
  ox_u16_t *slot = &m->start;
  while (cursor.left() > 0) {
    if (is_final(*slot)) {
      /* A text that differs from the new run keeps its former result. */
      const int number =
          addmstr(&m->sh, cursor.key + cursor.at, cursor.left(), cursor.at, value, *slot);
      if (number < 0) return -1;
      *slot = static_cast<ox_u16_t>(STATE_STRING + number);
      return 0;
    }
    if (is_table(*slot)) {
      slot = &m->th.tbl[*slot][cursor.byte()];
      ++cursor.at;
      continue;
    }
    strm_t *record = m->sh.str[*slot - STATE_STRING];
    const int same = common_prefix(record, cursor);
    if (same == record->l) {
      slot = &record->match;
      cursor.at += same;
      continue;
    }
    slot = split_record(m, slot, same, cursor);
    if (!slot) return -1;
  }
  *slot = value; /* states below are dropped */
  return 0;
}

int addstr(matchdr_t *m, const char *path, int len, ox_u16_t tag, int include) {
  ox_owner<char, kfree> copy(static_cast<char *>(_malloc_(len)));
  if (!copy) return -1;
  memcpy(copy.get(), path, len);
  /* Two keys: the directory itself ends in NUL, paths below it continue with '/'. */
  int keylen = len;
  if (len >= 2 && path[len - 2] == '/') {
    copy.get()[len - 2] = '\0';
    keylen = len - 1;
  } else {
    copy.get()[len - 1] = '/';
  }
  if (addmem(m, copy.get(), keylen, tag, include)) return -1;
  return addmem(m, path, keylen, tag, include);
}

int addwstr(matchdr_t *m, const void *path, int len, ox_u16_t tag, int include) {
  const ox_u16_t slash = '/';
  const int width = sizeof(slash);
  ox_owner<char, kfree> copy(static_cast<char *>(_malloc_(len)));
  if (!copy) return -1;
  memcpy(copy.get(), path, len);
  int keylen = len;
  if (len >= 2 * width && memcmp(copy.get() + len - 2 * width, &slash, width) == 0) {
    memset(copy.get() + len - 2 * width, 0, width);
    keylen = len - width;
  } else {
    memcpy(copy.get() + len - width, &slash, width);
  }
  if (addmem(m, copy.get(), keylen, tag, include)) return -1;
  return addmem(m, path, keylen, tag, include);
}

/* ---- compiling ---- */

namespace {

/* The new state of each table and record: its own, or that of the equal one that is kept. */
struct state_maps {
  ox_u16_t *table;
  ox_u16_t *record;
};

void redirect(ox_u16_t *map, int count, ox_u16_t from, ox_u16_t to) {
  for (int i = 0; i < count; ++i) {
    if (map[i] == from) map[i] = to;
  }
}

template <typename Each>
void each_table_entry(tblhlp_t *th, Each each) {
  for (int t = 0; t < th->ctbl; ++t) {
    if (!th->tbl[t]) continue;
    for (int i = 0; i < STATE_TABLE_LEN; ++i) each(th->tbl[t][i]);
  }
}

template <typename Each>
void each_record(strhlp_t *sh, Each each) {
  for (int s = 0; s < sh->cstr; ++s) {
    if (sh->str[s]) each(*sh->str[s]);
  }
}

void merge_tables(tblhlp_t *th, ox_u16_t *map) {
  for (int t = th->ctbl - 1; t > 0; --t) {
    if (!th->tbl[t]) continue;
    bool merged = false;
    for (int u = 0; u < t; ++u) {
      if (!th->tbl[u]) continue;
      if (memcmp(th->tbl[u], th->tbl[t], STATE_TABLE_LEN * sizeof(ox_u16_t)) != 0) continue;
      kfree(th->tbl[u]);
      th->tbl[u] = nullptr;
      redirect(map, th->ctbl, static_cast<ox_u16_t>(u), static_cast<ox_u16_t>(t));
      merged = true;
    }
    if (!merged) continue;
    each_table_entry(th, [map](ox_u16_t &state) {
      if (is_table(state)) state = map[state];
    });
  }
}

bool same_record(const strm_t *a, const strm_t *b) {
  return a->l == b->l && a->odd == b->odd && a->match == b->match && a->miss == b->miss &&
         memcmp(a->ptr, b->ptr, a->l) == 0;
}

void merge_records(strhlp_t *sh, ox_u16_t *map) {
  for (int s = sh->cstr - 1; s > 0; --s) {
    if (!sh->str[s]) continue;
    for (int r = 0; r < s; ++r) {
      if (!sh->str[r] || !same_record(sh->str[r], sh->str[s])) continue;
      free_record(sh->str[r]);
      sh->str[r] = nullptr;
      redirect(map, sh->cstr, static_cast<ox_u16_t>(STATE_STRING + r),
               static_cast<ox_u16_t>(STATE_STRING + s));
    }
  }
}

void merge_round(matchdr_t *m, const state_maps &maps) {
  merge_tables(&m->th, maps.table);
  each_record(&m->sh, [&maps](strm_t &record) {
    if (is_table(record.match)) record.match = maps.table[record.match];
    if (is_table(record.miss)) record.miss = maps.table[record.miss];
  });
  merge_records(&m->sh, maps.record);
  const auto follow = [&maps](ox_u16_t &state) {
    if (is_record(state)) state = maps.record[state - STATE_STRING];
  };
  each_table_entry(&m->th, follow);
  each_record(&m->sh, [&follow](strm_t &record) {
    follow(record.match);
    follow(record.miss);
  });
}

/* Moves the records into one array and their bytes into one pool. */
bool pack_records(matchdr_t *m) {
  if (m->sh.cstr == 0) return true;
  unsigned long bytes = 0;
  each_record(&m->sh, [&bytes](const strm_t &record) { bytes += record.l; });
  m->str = static_cast<ox_u8_t *>(_malloc_(bytes ? bytes : 1));
  m->strm = static_cast<strm_t *>(_malloc_(m->sh.cstr * sizeof(strm_t)));
  if (!m->str || !m->strm) return false;
  ox_u8_t *pool = m->str;
  for (int s = 0; s < m->sh.cstr; ++s) {
    const strm_t *record = m->sh.str[s];
    if (!record) continue;
    memcpy(pool, record->ptr, record->l);
    m->strm[s] = *record;
    m->strm[s].ptr = pool;
    pool += record->l;
  }
  clearmstr(&m->sh);
  return true;
}

/* Makes an identity map of `count` states from `first` on; null without memory. */
ox_u16_t *identity_map(int count, int first) {
  ox_u16_t *map = static_cast<ox_u16_t *>(_malloc_((count ? count : 1) * sizeof(ox_u16_t)));
  if (!map) return nullptr;
  for (int i = 0; i < count; ++i) map[i] = static_cast<ox_u16_t>(first + i);
  return map;
}

}  // namespace

int compilematch(matchdr_t *m) {
  ox_owner<ox_u16_t, kfree> tables(identity_map(m->th.ctbl, 0));
  ox_owner<ox_u16_t, kfree> records(identity_map(m->sh.cstr, STATE_STRING));
  if (!tables || !records) {
    clearmatch(m);
    return -1;
  }
  const state_maps maps = {tables.get(), records.get()};
  merge_round(m, maps);
  merge_round(m, maps);
  if (!pack_records(m)) {
    clearmatch(m);
    return -1;
  }
  if (is_table(m->start)) {
    m->start = maps.table[m->start];
  } else if (is_record(m->start)) {
    m->start = maps.record[m->start - STATE_STRING];
  }
  return 0;
}

ox_u16_t match(const matchdr_t *m, const char *path) {
  const ox_u8_t *p = reinterpret_cast<const ox_u8_t *>(path) + m->skip;
  ox_u16_t state = m->start;
  while (!is_final(state)) {
    if (is_table(state)) {
      state = m->th.tbl[state][*p++];
    } else {
      const strm_t *record = &m->strm[state - STATE_STRING];
      state = m->cmp(record, p);
      p += record->l;
    }
  }
  return state;
}

/* ---- a rule's workdir ---- */

const char *path_head(const char *p) {
  while (*p == ' ' || *p == ',' || *p == '\r' || *p == '\n') ++p;
  return *p ? p : nullptr;
}

const char *path_tail(const char *p) {
  while (*p && *p != ',' && *p != '\r' && *p != '\n') ++p;
  return p;
}

ox_s32_t entry_path_size(int len) {
  return CalBase64DecodeLen(len + 1);
}

unsigned long entry_path(const char *text, int len, char *path) {
  /* No more room than this: a length that is no multiple of four must not fit. */
  ox_s32_t size = entry_path_size(len);
  /* An invalid entry is an empty path, even if a part was decoded. */
  if (!Base64Decode(text, len, path, &size)) path[0] = '\0';
  return strlen(path);
}

namespace {

/* Inserts the directory of a Base64 text. Returns 0, or -1 without memory. */
int add_entry(matchdr_t *m, const char *text, int len, int include) {
  ox_owner<char, kfree> path(static_cast<char *>(_malloc_(entry_path_size(len))));
  if (!path) return -1;
  const unsigned long pathlen = entry_path(text, len, path.get());
  return addstr(m, path.get(), static_cast<int>(pathlen) + 1, 0, include);
}

int add_entries(matchdr_t *m, const char *text, bool excluded) {
  for (const char *head = path_head(text); head;) {
    const char *tail = path_tail(head);
    if ((*head == '!') == excluded) {
      const char *start = head + excluded;
      if (add_entry(m, start, static_cast<int>(tail - start), !excluded)) return -1;
    }
    head = path_head(tail);
  }
  return 0;
}

}  // namespace

int build_path_match(matchdr_t *m, const char *text) {
  clearmatch(m);
  initmatch(m, 0, 1, CMP_STR);
  /* Exclusions are inserted last, so that paths that differ from them keep the result
   * "included". */
  if (add_entries(m, text, false) || add_entries(m, text, true)) {
    clearmatch(m);
    return -1;
  }
  return compilematch(m);
}

/* ---- extensions ---- */

namespace {

const ox_u16_t kExtYes = 65534;
const ox_u16_t kExtNo = 65535;
const int kExtDot = '.';
/* The highest index of a character in a name. */
const unsigned long kExtLast = 65533;

typedef ox_u16_t ext_row_t[EXT_ROW_LEN];

/* The rows while they are built; frees those not packed. */
struct ext_builder {
  ext_row_t **rows = nullptr;
  int used = 0;
  int capacity = 0;

  ext_builder() = default;
  ext_builder(const ext_builder &) = delete;
  ext_builder &operator=(const ext_builder &) = delete;
  ~ext_builder() {
    for (int i = 0; i < used; ++i) kfree(rows[i]);
    kfree(rows);
  }

  /* Adds a row and returns its number, or -1. */
  int add(ox_u16_t value) {
    if (used >= kExtYes) return -1;
    ext_row_t **array = grown(rows, used, capacity);
    if (!array) return -1;
    rows = array;
    ext_row_t *row = static_cast<ext_row_t *>(_malloc_(sizeof(ext_row_t)));
    if (!row) return -1;
    for (int i = 0; i < EXT_ROW_LEN; ++i) (*row)[i] = value;
    rows[used] = row;
    return used++;
  }

  bool insert(const char *name, ox_u16_t listed, ox_u16_t other) {
    int row = 0;
    for (unsigned long i = strlen(name); i > 0; --i) {
      const int c = name[i - 1] & 127;
      ox_u16_t next = (*rows[row])[c];
      if (next >= kExtYes) {
        const int number = add(other);
        if (number < 0) return false;
        next = static_cast<ox_u16_t>(number);
        (*rows[row])[c] = next;
        (*rows[row])[c ^ 32] = next; /* letters in either case */
      }
      row = next;
    }
    (*rows[row])[kExtDot] = listed;
    return true;
  }

  void replace(int below, ox_u16_t from, ox_u16_t to) {
    for (int r = 0; r < below; ++r) {
      if (!rows[r]) continue;
      for (int i = 0; i < EXT_ROW_LEN; ++i) {
        if ((*rows[r])[i] == from) (*rows[r])[i] = to;
      }
    }
  }

  void merge() {
    for (int t = used - 1; t > 0; --t) {
      if (!rows[t]) continue;
      for (int u = 0; u < t; ++u) {
        if (!rows[u] || memcmp(*rows[u], *rows[t], sizeof(ext_row_t)) != 0) continue;
        kfree(rows[u]);
        rows[u] = nullptr;
        replace(t, static_cast<ox_u16_t>(u), static_cast<ox_u16_t>(t));
      }
    }
  }

  /* Packs the remaining rows into one array and renumbers them; null without memory. */
  ext_row_t *packed() {
    int left = 0;
    for (int i = 0; i < used; ++i) {
      if (!rows[i]) continue;
      if (i != left) replace(used, static_cast<ox_u16_t>(i), static_cast<ox_u16_t>(left));
      ++left;
    }
    ext_row_t *table = static_cast<ext_row_t *>(_malloc_(left * sizeof(ext_row_t)));
    if (!table) return nullptr;
    for (int i = 0, to = 0; i < used; ++i) {
      if (rows[i]) memcpy(table[to++], *rows[i], sizeof(ext_row_t));
    }
    return table;
  }
};

}  // namespace

void initext(extm_t *e) {
  memset(e, 0, sizeof(*e));
}

void clearext(extm_t *e) {
  kfree(e->t);
  initext(e);
}

int compileext(extm_t *e, const char *const *names, int count, int b) {
  if (count == 0) return 0;
  const ox_u16_t listed = b == 1 ? kExtYes : kExtNo;
  const ox_u16_t other = b == 1 ? kExtNo : kExtYes;
  ext_builder builder;
  if (builder.add(other) < 0) return -ENOMEM;
  for (int i = 0; i < count; ++i) {
    if (!builder.insert(names[i], listed, other)) return -ENOMEM;
  }
  builder.merge();
  ext_row_t *table = builder.packed();
  if (!table) return -ENOMEM;
  e->t = table;
  e->b = b;
  return 0;
}

int matchext(const extm_t *e, const char *name) {
  if (!e->t) return !e->b;
  const unsigned long len = strlen(name);
  if (len > kExtLast + 1) return !e->b;
  ox_u16_t row = 0;
  for (unsigned long i = len; i > 0; --i) {
    row = e->t[row][name[i - 1] & 127];
    if (row == kExtYes) return 1;
    if (row == kExtNo) return 0;
  }
  return !e->b;
}
