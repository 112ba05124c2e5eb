// SPDX-License-Identifier: GPL-2.0
#include "ox_uuid.h"

void uuid_unparse_upper(const uuid_t uu, char *out) {
  static const char digits[] = "0123456789ABCDEF";
  for (int i = 0; i < OX_UUID_LEN; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) *out++ = '-';
    *out++ = digits[uu[i] >> 4];
    *out++ = digits[uu[i] & 15];
  }
  *out = '\0';
}
