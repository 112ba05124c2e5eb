/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Base64, standard alphabet, '=' padding. The caller owns the buffers; nothing is allocated. *size
 * is the output buffer's size on entry and the output's length on success.
 */
#ifndef TARN_BASE64_H
#define TARN_BASE64_H

#include "TypeDef.h"

extern const char table_b2a_base64[65];
extern const ox_u8_t table_a2b_base64[128];

/* The number of characters for `len` bytes, without a NUL. With crlf, a line end follows every full
 * line of 76 but the last. */
ox_s32_t CalBase64EncodeLen(ox_s32_t len, int crlf);
/* The largest number of bytes that `len` characters decode to. */
ox_s32_t CalBase64DecodeLen(ox_s32_t len);
/* Returns `out`, or null if it is too small. A NUL is added if there is room, and not counted. */
char *Base64Encode(const void *in, ox_s32_t len, char *out, ox_s32_t *size, int crlf);
/*
 * Returns `out`, or null on failure, when it may hold a part. The buffer must be larger than
 * CalBase64DecodeLen(len). Characters outside the alphabet are skipped. A NUL is added if there is
 * room, and not counted.
 */
char *Base64Decode(const char *in, ox_s32_t len, char *out, ox_s32_t *size);

#endif
