// SPDX-License-Identifier: GPL-2.0
// Text forms: UUIDs, Base64, rule texts, paths shown to people and to programs.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <limits>

#include "base/text.h"
#include "client/base64.h"
#include "client/json_bytes.h"
#include "client/paths.h"
#include "client/rule_scope.h"
#include "client/uuid.h"
#include "client/workdir.h"

namespace tarn {
namespace {

using Paths = std::vector<std::string>;

TEST(Uuid, text_form) {
  const auto uuid = parse_uuid("0123abCD-4567-89EF-0123-456789abcdef");
  ASSERT_TRUE(uuid);
  EXPECT_EQ(uuid->bytes[0], 0x01);
  EXPECT_EQ(uuid->bytes[15], 0xef);
  EXPECT_EQ(to_string(*uuid), "0123ABCD-4567-89EF-0123-456789ABCDEF");
  for (const char *wrong :
       {"", "0123ABCD", "0123ABCD-4567-89EF-0123-456789ABCDE",
        "0123ABCD-4567-89EF-0123-456789ABCDEFF", "0123ABCD+4567-89EF-0123-456789ABCDEF",
        "0123ABCG-4567-89EF-0123-456789ABCDEF", "0123ABC-D4567-89EF-0123-456789ABCDEF"})
    EXPECT_FALSE(parse_uuid(wrong)) << wrong;
}

TEST(Uuid, new_ones_differ_and_hold_no_zero) {
  for (int i = 0; i < 200; ++i) {
    const Uuid uuid = *make_uuid();
    EXPECT_EQ(std::count(uuid.bytes.begin(), uuid.bytes.end(), 0), 0);
    EXPECT_EQ(parse_uuid(to_string(uuid)), uuid);
    EXPECT_NE(uuid, *make_uuid());
  }
}

TEST(Base64, known_texts) {
  EXPECT_EQ(base64_encode(""), "");
  EXPECT_EQ(base64_encode("A"), "QQ==");
  EXPECT_EQ(base64_encode("/a/b"), "L2EvYg==");
  EXPECT_EQ(base64_decode("QQ=="), "A");
  EXPECT_EQ(base64_decode(""), "");
  for (const char *wrong : {"QQ=", "QQ", "Q===", "====", "Q*==", " QQ==", "QQ==\n", "Q=Q="})
    EXPECT_FALSE(base64_decode(wrong)) << wrong;
}

TEST(Base64, any_bytes_come_back) {
  EXPECT_TRUE(rc::check("encode and decode", [](const std::string &bytes) {
    RC_ASSERT(base64_decode(base64_encode(bytes)) == bytes);
  }));
}

TEST(Workdir, sorted_with_parents_first) {
  const auto text = make_workdir({{"/b/c", "/b", "/a b"}, {"/b/c/d"}});
  ASSERT_TRUE(text.ok());
  EXPECT_EQ(*text, base64_encode("/a b") + "," + base64_encode("/b") + "," + base64_encode("/b/c") +
                       ",!" + base64_encode("/b/c/d"));
  const ReadWorkdir read = read_workdir(*text);
  EXPECT_EQ(read.directories.include, (Paths{"/a b", "/b", "/b/c"}));
  EXPECT_EQ(read.directories.exclude, (Paths{"/b/c/d"}));
  EXPECT_TRUE(read.broken.empty());
}

TEST(Workdir, any_paths_come_back) {
  EXPECT_TRUE(rc::check("make and read", [] {
    const auto path = rc::gen::map(rc::gen::container<std::string>(rc::gen::nonZero<char>()),
                                   [](std::string name) { return "/" + name; });
    RuleDirectories given;
    given.include = *rc::gen::nonEmpty(rc::gen::container<Paths>(path));
    given.exclude = *rc::gen::container<Paths>(path);
    const auto text = make_workdir(given);
    if (!text) return;
    const ReadWorkdir read = read_workdir(*text);
    std::sort(given.include.begin(), given.include.end());
    std::sort(given.exclude.begin(), given.exclude.end());
    RC_ASSERT(read.directories.include == given.include);
    RC_ASSERT(read.directories.exclude == given.exclude);
  }));
}

TEST(Workdir, limits) {
  EXPECT_EQ(make_workdir({{}, {"/a"}}).error().code, -EINVAL);
  EXPECT_EQ(make_workdir({{"a"}, {}}).error().code, -EINVAL);
  EXPECT_EQ(make_workdir({{"/a"}, {""}}).error().code, -EINVAL);
  EXPECT_EQ(make_workdir({{std::string("/a\0b", 4)}, {}}).error().code, -EINVAL);
  EXPECT_EQ(make_workdir({{"/" + std::string(4095, 'x')}, {}}).error().code, -ENAMETOOLONG);
  // 2999 bytes are 4000 characters; with three commas four of them are 16,003.
  const std::string longest = "/" + std::string(2998, 'x');
  EXPECT_TRUE(make_workdir({{longest, longest, longest}, {}}).ok());
  const auto too_long = make_workdir({{longest, longest, longest, longest}, {}});
  ASSERT_FALSE(too_long.ok());
  EXPECT_EQ(too_long.error().text,
            "the rule's text needs 16003 bytes and 15999 fit: name fewer or shorter directories, "
            "or split them over "
            "several rules");
}

TEST(Workdir, separators_and_broken_entries) {
  const ReadWorkdir read = read_workdir(" L2E=,,\r\n!L2Ev\n***,QQ=,!,L2I= ");
  EXPECT_EQ(read.directories.include, (Paths{"/a"}));
  EXPECT_EQ(read.directories.exclude, (Paths{"/a/"}));
  EXPECT_EQ(read.broken, (Paths{"***", "QQ=", "!", "L2I= "}));
}

/* Of RuleScope, "+directory" or "-directory"; "": none decides. */
std::string deciding(const RuleScope &scope, const std::string &path) {
  const RuleScope::Entry *entry = scope.deciding(path);
  EXPECT_EQ(scope.includes(path), entry && entry->included) << path;
  return entry ? (entry->included ? "+" : "-") + entry->directory : "";
}

TEST(RuleScope, the_longest_directory_decides) {
  const RuleScope scope(RuleDirectories{{"/a", "/a/y/", "/c"}, {"/a/b", "/a/x/", "/c"}});
  for (const char *path : {"/a", "/a/f", "/a/bc"}) EXPECT_EQ(deciding(scope, path), "+/a") << path;
  for (const char *path : {"/a/b", "/a/b/f"}) EXPECT_EQ(deciding(scope, path), "-/a/b") << path;
  for (const char *path : {"/a/x", "/a/x/f"}) EXPECT_EQ(deciding(scope, path), "-/a/x/") << path;
  for (const char *path : {"/a/y", "/a/y/f"}) EXPECT_EQ(deciding(scope, path), "+/a/y/") << path;
  for (const char *path : {"/", "/ab"}) EXPECT_EQ(deciding(scope, path), "") << path;
  EXPECT_EQ(deciding(scope, "/c/d"), "-/c");
}

TEST(RuleScope, a_directory_listed_after_one_inside_it) {
  const RuleScope scope(RuleDirectories{{"/a", "/a/b/c"}, {"/a/b"}});
  EXPECT_EQ(deciding(scope, "/a/b"), "-/a/b");
  EXPECT_EQ(deciding(scope, "/a/b/f"), "+/a");
  EXPECT_EQ(deciding(scope, "/a/b/c/f"), "+/a/b/c");
  EXPECT_EQ(*scope.nearest("/a/b/f"), (RuleScope::Entry{"/a/b", false}));
  // The two included ones part inside the excluded one, which replaces them.
  const RuleScope parting(RuleDirectories{{"/a/b/c", "/a/b/d"}, {"/a/b"}});
  EXPECT_EQ(deciding(parting, "/a/b/c/x"), "-/a/b");
}

TEST(RuleScope, of_a_text) {
  const RuleScope scope("L2EvYg==\n!L2EvYi9j,L2E=");
  EXPECT_EQ(deciding(scope, "/a/b/c/d"), "-/a/b/c");
  EXPECT_EQ(deciding(scope, "/a/b/d"), "+/a/b");
  EXPECT_EQ(deciding(scope, "/a/x"), "");  // /a comes behind /a/b
  EXPECT_EQ(deciding(scope, "/a"), "+/a");
  EXPECT_EQ(deciding(RuleScope("QQ="), "/any"), "+/");
}

TEST(PathBelow, only_real_descendants) {
  EXPECT_EQ(path_below("/src", "/src"), "");
  EXPECT_EQ(path_below("/src", "/src/a/b"), "a/b");
  EXPECT_EQ(path_below("/src", "/srcx"), std::nullopt);
  EXPECT_EQ(path_below("/src", "/sr"), std::nullopt);
  EXPECT_EQ(path_below("/src", "/other/src"), std::nullopt);
  EXPECT_EQ(path_below("/", "/a"), "a");
  EXPECT_EQ(path_below("/", "/"), "");
  EXPECT_TRUE(rc::check("what is put below is found below", [] {
    const auto name = *rc::gen::nonEmpty(rc::gen::container<std::string>(rc::gen::nonZero<char>()));
    RC_ASSERT(path_below("/s", "/s/" + name) == name);
  }));
}

TEST(MeantLowerPath, of_a_path_of_a_mount_alone) {
  const std::vector<Mount> mounts = {
      {"/data", "/mnt", ""}, {"/other", "/mnt/in", ""}, {"/deep/er", "/deep", ""}};
  EXPECT_EQ(meant_lower_path(mounts, "/mnt"), "/data");
  EXPECT_EQ(meant_lower_path(mounts, "/mnt/x/y"), "/data/x/y");
  EXPECT_EQ(meant_lower_path(mounts, "/mnt/in/x"), "/other/x") << "the innermost mount";
  EXPECT_EQ(meant_lower_path(mounts, "/mntx"), std::nullopt);
  EXPECT_EQ(meant_lower_path(mounts, "/data/x"), std::nullopt);
  EXPECT_EQ(meant_lower_path(mounts, "/deep/er/x"), std::nullopt) << "the lower directory is in it";
  EXPECT_EQ(meant_lower_path({{"/", "/view", ""}}, "/view/x"), std::nullopt);
  EXPECT_EQ(meant_lower_path({{"/data", "/", ""}}, "/x"), "/data/x");
  EXPECT_EQ(meant_lower_path({{"/data", "/mnt", ""}, {"/mnt", "/over", ""}}, "/mnt/x"),
            std::nullopt)
      << "the mount is the lower directory of another";
  EXPECT_EQ(meant_lower_path({}, "/x"), std::nullopt);
}

TEST(Text, printable) {
  EXPECT_EQ(printable("/plain/p\xc3\xa4th"), "/plain/p\xc3\xa4th");
  EXPECT_EQ(printable("/a b"), "\"/a b\"");
  EXPECT_EQ(printable(""), "\"\"");
  EXPECT_EQ(printable("/a\n\t\"\\\x01\x7f\xff\xc2\x85"),
            "\"/a\\n\\t\\\"\\\\\\x01\\x7f\\xff\\xc2\\x85\"");
}

TEST(Text, printable_is_one_line_of_utf8_and_tells_paths_apart) {
  EXPECT_TRUE(rc::check("any two strings", [](const std::string &a, const std::string &b) {
    RC_ASSERT(valid_utf8(printable(a)));
    RC_ASSERT(printable(a).find('\n') == std::string::npos);
    RC_ASSERT((a == b) == (printable(a) == printable(b)));
  }));
}

TEST(Text, utf8) {
  for (const char *right :
       {"", "a", "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xed\x9f\xbf"})
    EXPECT_TRUE(valid_utf8(right)) << right;
  for (const char *wrong : {"\x80", "\xc3", "\xc0\xaf", "\xe0\x80\x80", "\xed\xa0\x80",
                            "\xf4\x90\x80\x80", "\xf0\x80\x80\x80", "\xff", "\xe2\x82"})
    EXPECT_FALSE(valid_utf8(wrong)) << wrong;
}

TEST(Text, json) {
  EXPECT_EQ(json_bytes("/a\n\"b").dump(), R"("/a\n\"b")");
  EXPECT_EQ(json_bytes("/\xff").dump(), R"({"base64":"L/8="})");
  EXPECT_TRUE(rc::check("any bytes can be dumped",
                        [](const std::string &bytes) { json_bytes(bytes).dump(); }));
}

TEST(Text, octal_escapes) {
  EXPECT_EQ(unescape_octal("/a\\040b\\134c\\012"), "/a b\\c\n");
  EXPECT_EQ(unescape_octal("/a\\04"), "/a\\04");
  EXPECT_EQ(unescape_octal("\\9\\"), "\\9\\");
}

TEST(Text, time) {
  EXPECT_EQ(utc_time(0), "1970-01-01 00:00:00.000000");
  EXPECT_EQ(utc_time(951'782'400'000'001), "2000-02-29 00:00:00.000001");
  EXPECT_EQ(utc_time(-1), "1969-12-31 23:59:59.999999");
  EXPECT_EQ(utc_time(-86'400'000'000), "1969-12-31 00:00:00.000000");
  EXPECT_EQ(utc_time(std::numeric_limits<std::int64_t>::min()), "-290308-12-21 19:59:05.224192");
}

}  // namespace
}  // namespace tarn
