#include "sync/base/text.hpp"

#include <gtest/gtest.h>

#include "tests/support/failures.hpp"

namespace brackenfen::sync {
namespace {

using Parts = std::vector<std::string_view>;

TEST(Text, stripsEveryWhiteSpaceOfUnicodeAndNothingElse) {
  EXPECT_EQ(strip("\t\x1c \u00a0\u2003\u3000a b\u0085\u2028\n"), "a b");
  EXPECT_EQ(strip(" \u3000 "), "");
  EXPECT_EQ(strip("\u200bx\u200b"), "\u200bx\u200b");  // zero width, but no space
  EXPECT_EQ(strip("x\x80"), "x\x80");
  EXPECT_EQ(rstrip_char("//a//", '/'), "//a");
  EXPECT_EQ(rstrip_char("///", '/'), "");
}

TEST(Text, splitsAndJoinsWithEmptyParts) {
  EXPECT_EQ(split("/a//b/", "/"), (Parts{"", "a", "", "b", ""}));
  EXPECT_EQ(split("", "/"), Parts{""});
  EXPECT_EQ(split("a--b-c", "--"), (Parts{"a", "b-c"}));
  EXPECT_EQ(join({"", "a", ""}, ", "), ", a, ");
}

TEST(RequireUtf8, carriesTheBytes) {
  const std::optional<Error> error = error_of([] { require_utf8("12345678\u00e9\xC3("); });
  ASSERT_TRUE(error && error->is(error_class::ValueError));
  EXPECT_EQ(error->text(), "'utf-8' codec can't decode byte 0xc3 in position 10: invalid continuation byte");
  EXPECT_EQ(error->fields().get("object").if_text(), "12345678\u00e9\xC3(");
}

TEST(FindInvalidUtf8, looksAtEveryOffsetOfAWord) {
  EXPECT_EQ(find_invalid_utf8("\u0080\u07ff\u0800\ud7ff\ue000\uffff\U00010000\U0010FFFF"), std::string_view::npos);
  for (std::size_t at = 0; at < 20; ++at) {
    std::string bytes(20, 'x');
    bytes[at] = '\xFF';
    EXPECT_EQ(find_invalid_utf8(bytes), at);
  }
}

}  // namespace
}  // namespace brackenfen::sync
