/* SPDX-License-Identifier: GPL-2.0 */
/* Character classes of Latin-1, as the kernel's table has them. */
#ifndef _LINUX_CTYPE_H
#define _LINUX_CTYPE_H

static inline int isdigit(int c) {
  return c >= '0' && c <= '9';
}
static inline int isupper(int c) {
  return (c >= 'A' && c <= 'Z') || (c >= 0xc0 && c <= 0xde && c != 0xd7);
}
static inline int isxdigit(int c) {
  return isdigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}
static inline int tolower(int c) {
  return isupper(c) ? c + 32 : c;
}

#endif
