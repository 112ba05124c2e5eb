/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Base64, standard alphabet, '=' padding. Buffers are the caller's; nothing is allocated. *size is
 * the output buffer's size on entry and what was written on success.
 */
#ifndef TARN_BASE64_H
#define TARN_BASE64_H

#include "TypeDef.h"

extern const char table_b2a_base64[65];
extern const ox_u8_t table_a2b_base64[128];

/* Characters for `len` bytes, without a NUL. With crlf: a line end after every full line of 76 but
 * the last. */
ox_s32_t CalBase64EncodeLen(ox_s32_t len, int crlf);
/* The most bytes that `len` characters can give. */
ox_s32_t CalBase64DecodeLen(ox_s32_t len);
/* `out`, null when it is too small. A NUL is added if there is room, and not counted. */
char *Base64Encode(const void *in, ox_s32_t len, char *out, ox_s32_t *size, int crlf);
/*
 * `out`, null on failure, when it may hold a part. The buffer must be larger than
 * CalBase64DecodeLen(len). Characters outside the alphabet are skipped. A NUL is added if there is
 * room, and not counted.
 */
char *Base64Decode(const char *in, ox_s32_t len, char *out, ox_s32_t *size);

#endif
