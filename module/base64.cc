// SPDX-License-Identifier: GPL-2.0
#include "base64.h"

#include "kernel.h"

const char table_b2a_base64[65] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

#define NO 255
const ox_u8_t table_a2b_base64[128] = {
    NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, /* controls */
    NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, /* controls */
    NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, NO, 62, NO, NO, NO, 63, /* + / */
    52, 53, 54, 55, 56, 57, 58, 59, 60, 61, NO, NO, NO, 0,  NO, NO, /* 0-9, = */
    NO, 0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, /* A-O */
    15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, NO, NO, NO, NO, NO, /* P-Z */
    NO, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, /* a-o */
    41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, NO, NO, NO, NO, NO, /* p-z */
};
#undef NO

namespace {

const int kChunkBytes = 57;
const int kLineChars = 76;

/* Encodes one chunk and returns the number of characters. */
int encode_chunk(const ox_u8_t *in, int len, char *out) {
  char *p = out;
  for (; len >= 3; len -= 3, in += 3) {
    const ox_u32_t bits = in[0] << 16 | in[1] << 8 | in[2];
    *p++ = table_b2a_base64[bits >> 18];
    *p++ = table_b2a_base64[bits >> 12 & 63];
    *p++ = table_b2a_base64[bits >> 6 & 63];
    *p++ = table_b2a_base64[bits & 63];
  }
  if (len > 0) {
    const ox_u32_t bits = in[0] << 16 | (len == 2 ? in[1] << 8 : 0);
    *p++ = table_b2a_base64[bits >> 18];
    *p++ = table_b2a_base64[bits >> 12 & 63];
    *p++ = len == 2 ? table_b2a_base64[bits >> 6 & 63] : '=';
    *p++ = '=';
  }
  return static_cast<int>(p - out);
}

}  // namespace

ox_s32_t CalBase64EncodeLen(ox_s32_t len, int crlf) {
  const ox_s32_t chars = (len + 2) / 3 * 4;
  if (!crlf) return chars;
  const ox_s32_t ends = chars / kLineChars * 2;
  return chars + ends - (chars > 0 && chars % kLineChars == 0 ? 2 : 0);
}

ox_s32_t CalBase64DecodeLen(ox_s32_t len) {
  return (len + 3) / 4 * 3;
}

char *Base64Encode(const void *in, ox_s32_t len, char *out, ox_s32_t *size, int crlf) {
  if (*size < CalBase64EncodeLen(len, crlf)) return nullptr;
  const ox_u8_t *bytes = static_cast<const ox_u8_t *>(in);
  ox_s32_t written = 0;
  for (ox_s32_t at = 0; at < len; at += kChunkBytes) {
    char line[kLineChars + 2];
    const bool last = len - at <= kChunkBytes;
    int count = encode_chunk(bytes + at, last ? len - at : kChunkBytes, line);
    if (crlf && !last) {
      line[count++] = '\r';
      line[count++] = '\n';
    }
    if (written + count > *size) return nullptr;
    memcpy(out + written, line, count);
    written += count;
  }
  if (written < *size) out[written] = '\0';
  *size = written;
  return out;
}

char *Base64Decode(const char *in, ox_s32_t len, char *out, ox_s32_t *size) {
  const ox_s32_t most = CalBase64DecodeLen(len);
  if (most >= *size) return nullptr;
  ox_s32_t written = 0;
  ox_s32_t padding = 0;
  ox_u32_t bits = 0;
  int pending = 0;
  for (ox_s32_t i = 0; i < len; ++i) {
    const ox_u8_t c = in[i] & 127;
    const ox_u8_t value = table_a2b_base64[c];
    if (value == 255) continue; /* line ends and spaces too */
    if (c == '=') ++padding;
    bits = bits << 6 | value;
    pending += 6;
    if (pending < 8) continue;
    if (written == most) return nullptr;
    pending -= 8;
    out[written++] = static_cast<char>(bits >> pending);
    bits &= (1u << pending) - 1;
  }
  if (pending != 0 || padding > written || padding > 2) return nullptr;
  const ox_s32_t length = written - padding;
  if (length < *size) out[length] = '\0';
  *size = length;
  return out;
}
