/* SPDX-License-Identifier: GPL-2.0 */
/* Text form and comparison of UUIDs. */
#ifndef OX_UUID_H
#define OX_UUID_H

#include "kernel.h"
#include "ox_msg.h"

/* Writes 36 characters, upper case, 8-4-4-4-12, and a NUL; `out` has at least OX_UUID_TEXT
 * bytes. */
void uuid_unparse_upper(const uuid_t uu, char *out);

/* The comparison ends at a zero byte: UUIDs that agree up to a common one are equal. */
inline bool uuid_same(const uuid_t a, const uuid_t b) {
  return strncmp(reinterpret_cast<const char *>(a), reinterpret_cast<const char *>(b),
                 OX_UUID_LEN) == 0;
}

#endif
