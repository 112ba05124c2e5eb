// SPDX-License-Identifier: GPL-2.0
#include "ox_uuid.h"
#include "tests/harness/case.h"

CASE(ox_uuid, bytes_in_groups_of_upper_case_digits) {
  uuid_t uu;
  char text[OX_UUID_TEXT];
  memset(uu, 0xAB, sizeof(uu));
  uuid_unparse_upper(uu, text);
  EXPECT_STREQ(text, "ABABABAB-ABAB-ABAB-ABAB-ABABABABABAB");
  const uuid_t digits = {0x01, 0x23, 0xAB, 0xCD, 0x45, 0x67, 0x89, 0xEF,
                         0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
  uuid_unparse_upper(digits, text);
  EXPECT_STREQ(text, "0123ABCD-4567-89EF-0123-456789ABCDEF");
}

CASE(ox_uuid, the_text_fills_its_buffer_and_no_more) {
  uuid_t uu = {};
  char text[OX_UUID_TEXT + 1];
  text[OX_UUID_TEXT] = 'x';
  uuid_unparse_upper(uu, text);
  EXPECT_EQ(strlen(text), OX_UUID_TEXT - 1ul);
  EXPECT_EQ(text[OX_UUID_TEXT], 'x');
}

CASE(ox_uuid, a_zero_byte_ends_a_comparison) {
  const uuid_t a = {1, 2, 0, 4};
  const uuid_t b = {1, 2, 0, 5};
  const uuid_t c = {1, 3, 0, 4};
  EXPECT_TRUE(uuid_same(a, b));
  EXPECT_FALSE(uuid_same(a, c));
}
