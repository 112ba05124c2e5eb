// SPDX-License-Identifier: GPL-2.0
#include "base64.h"
#include "kernel.h"
#include "tests/harness/case.h"

static bool decodes(const char *text, char *out, ox_s32_t *size) {
  return Base64Decode(text, static_cast<ox_s32_t>(strlen(text)), out, size) != nullptr;
}

CASE(base64, padded_pair_is_one_byte_and_a_nul) {
  char out[8];
  memset(out, 'x', sizeof(out));
  ox_s32_t size = sizeof(out);
  REQUIRE_TRUE(decodes("QQ==", out, &size));
  EXPECT_EQ(size, 1);
  EXPECT_EQ(out[0], 0x41);
  EXPECT_EQ(out[1], 0);
}

/* No padding that would have left a zero there. */
CASE(base64, a_nul_follows_if_there_is_room) {
  char out[8];
  memset(out, 'x', sizeof(out));
  ox_s32_t size = sizeof(out);
  REQUIRE_TRUE(decodes("QUJD", out, &size));
  EXPECT_EQ(size, 3);
  EXPECT_STREQ(out, "ABC");
}

CASE(base64, bits_left_over_fail_and_leave_the_size) {
  char out[8];
  ox_s32_t size = sizeof(out);
  EXPECT_FALSE(decodes("QQ=", out, &size));
  EXPECT_EQ(size, (int)sizeof(out));
  EXPECT_FALSE(decodes("Q", out, &size));
}

CASE(base64, stray_characters_are_skipped) {
  char out[64];
  ox_s32_t size = sizeof(out);
  REQUIRE_TRUE(decodes("aG\r\nVs *bG!8\x01=", out, &size));
  EXPECT_EQ(size, 5);
  EXPECT_STREQ(out, "hello");
}

CASE(base64, the_eighth_bit_is_not_looked_at) {
  char out[8];
  ox_s32_t size = sizeof(out);
  REQUIRE_TRUE(decodes("\xD1\xD1==", out, &size));
  EXPECT_EQ(out[0], 0x41);
}

CASE(base64, a_buffer_for_one_more_character_is_too_small_for_odd_text) {
  char out[64];
  const char text[] = "aGVsbG8";
  for (int len = 1; len <= 7; ++len) {
    ox_s32_t size = CalBase64DecodeLen(len + 1);
    const bool whole = len % 4 == 0;
    EXPECT_EQ(size == CalBase64DecodeLen(len), !whole);
    EXPECT_EQ(Base64Decode(text, len, out, &size) != nullptr, whole);
  }
}

CASE(base64, too_much_padding_fails) {
  char out[16];
  ox_s32_t size = sizeof(out);
  EXPECT_FALSE(decodes("A===", out, &size));
  EXPECT_FALSE(decodes("====", out, &size));
  EXPECT_TRUE(decodes("AA==", out, &size));
}

CASE(base64, the_output_must_exceed_the_worst_case) {
  char out[4];
  ox_s32_t size = 3;
  EXPECT_FALSE(decodes("aGVs", out, &size));
  size = 4;
  EXPECT_TRUE(decodes("aGVs", out, &size));
  EXPECT_EQ(size, 3);
}

CASE(base64, line_ends_stand_between_full_lines_only) {
  unsigned char in[58];
  memset(in, 0xAB, sizeof(in));
  char out[100];
  ox_s32_t size = sizeof(out);
  REQUIRE_TRUE(Base64Encode(in, 57, out, &size, 1) != nullptr);
  EXPECT_EQ(size, 76);
  EXPECT_EQ(CalBase64EncodeLen(57, 1), 76);
  EXPECT_TRUE(strchr(out, '\r') == nullptr);

  size = sizeof(out);
  REQUIRE_TRUE(Base64Encode(in, 58, out, &size, 1) != nullptr);
  EXPECT_EQ(size, 82);
  EXPECT_EQ(CalBase64EncodeLen(58, 1), 82);
  EXPECT_EQ(out[76], '\r');
  EXPECT_EQ(out[77], '\n');
  EXPECT_STREQ(out + 78, "qw==");
}

CASE(base64, nothing_encodes_to_a_nul) {
  char out[2] = {'x', 'x'};
  ox_s32_t size = 1;
  REQUIRE_TRUE(Base64Encode("", 0, out, &size, 0) != nullptr);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(out[0], 0);
  out[0] = 'x';
  size = 0;
  REQUIRE_TRUE(Base64Encode("", 0, out, &size, 1) != nullptr);
  EXPECT_EQ(out[0], 'x');
}

CASE(base64, an_encoding_that_does_not_fit_fails) {
  char out[8];
  ox_s32_t size = 7;
  EXPECT_TRUE(Base64Encode("hello", 5, out, &size, 0) == nullptr);
  EXPECT_EQ(size, 7);
  size = 8;
  EXPECT_TRUE(Base64Encode("hello", 5, out, &size, 0) != nullptr);
  EXPECT_EQ(size, 8);
}

CASE(base64, every_length_comes_back) {
  unsigned char in[200];
  for (unsigned i = 0; i < sizeof(in); ++i) in[i] = static_cast<unsigned char>(i * 37 + 5);
  static char text[400], out[400];
  for (int crlf = 0; crlf < 2; ++crlf) {
    for (int len = 0; len <= 200; ++len) {
      ox_s32_t chars = sizeof(text);
      REQUIRE_TRUE(Base64Encode(in, len, text, &chars, crlf) != nullptr);
      EXPECT_EQ(chars, CalBase64EncodeLen(len, crlf));
      ox_s32_t size = sizeof(out);
      REQUIRE_TRUE(Base64Decode(text, chars, out, &size) != nullptr);
      EXPECT_EQ(size, len);
      EXPECT_EQ(memcmp(in, out, len), 0);
    }
  }
}
