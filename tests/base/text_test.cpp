#include "sync/base/text.hpp"

#include <gtest/gtest.h>

#include "sync/base/error.hpp"

namespace brackenfen::sync {
namespace {

using Parts = std::vector<std::string_view>;

TEST(Text, stripsEveryWhiteSpaceOfUnicodeAndNothingElse) {
  EXPECT_EQ(strip("\t\x1c \u00a0\u2003\u3000a b\u0085\u2028\n"), "a b");
  EXPECT_EQ(strip(" \u3000 "), "");
  EXPECT_EQ(strip("\u200bx\u200b"), "\u200bx\u200b");  // zero width, but no space
  EXPECT_EQ(strip("x\x80"), "x\x80");
  EXPECT_EQ(strip_char("//a/b//", '/'), "a/b");
  EXPECT_EQ(rstrip_char("//a//", '/'), "//a");
  EXPECT_EQ(strip_char("///", '/'), "");
}

TEST(Text, splitsAndJoinsWithEmptyParts) {
  EXPECT_EQ(split("/a//b/", "/"), (Parts{"", "a", "", "b", ""}));
  EXPECT_EQ(split("", "/"), Parts{""});
  EXPECT_EQ(split("a--b-c", "--"), (Parts{"a", "b-c"}));
  EXPECT_EQ(join({"", "a", ""}, ", "), ", a, ");
}

TEST(RequireUtf8, namesTheFirstFaultAsPythonDoes) {
  const struct {
    const char* bytes;
    const char* text;
  } rows[] = {
      {"abc\x80", "byte 0x80 in position 3: invalid start byte"},
      {"\xC0\x80", "byte 0xc0 in position 0: invalid start byte"},
      {"\xF5\x80\x80\x80", "byte 0xf5 in position 0: invalid start byte"},
      {"12345678\u00e9\xC3(", "byte 0xc3 in position 10: invalid continuation byte"},
      {"\xC3", "byte 0xc3 in position 0: unexpected end of data"},
      {"\xE2\x82", "bytes in position 0-1: unexpected end of data"},
      {"\xE2\x82(", "bytes in position 0-1: invalid continuation byte"},
      {"\xE0\x80\x80", "byte 0xe0 in position 0: invalid continuation byte"},
      {"\xED\xA0\x80", "byte 0xed in position 0: invalid continuation byte"},
      {"\xED", "byte 0xed in position 0: unexpected end of data"},
      {"\xED\xA0", "byte 0xed in position 0: invalid continuation byte"},
      {"\xF0\x9F\x98", "bytes in position 0-2: unexpected end of data"},
      {"\xF0\x9F(", "bytes in position 0-1: invalid continuation byte"},
      {"\xF4\x90\x80\x80", "byte 0xf4 in position 0: invalid continuation byte"},
  };
  for (const auto& row : rows) {
    try {
      require_utf8(row.bytes);
      ADD_FAILURE() << row.text;
    } catch (const Error& error) {
      EXPECT_TRUE(error.is(error_class::ValueError));
      EXPECT_EQ(error.text(), std::string("'utf-8' codec can't decode ") + row.text);
      EXPECT_EQ(error.fields().get("object").if_text(), row.bytes);
    }
  }
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
