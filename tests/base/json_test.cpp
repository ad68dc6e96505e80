#include "sync/base/json.hpp"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/failures.hpp"

namespace brackenfen::sync {
namespace {

std::string failure_of_parsing(std::string_view document) {
  return failure_of([&] { return parse_json(document); });
}

// json_property_test.py compares every other refusal with Python's own; this is the one that Python does not share.
TEST(ParseJson, refusesLoneSurrogates) {
  for (const char* document : {R"("\ud800")", R"("\ud800\u0041")"})
    EXPECT_EQ(failure_of_parsing(document), "JSONDecodeError: Lone surrogate in \\uXXXX escape: line 1 column 2 (char 1)");
}

TEST(ParseJson, sharesRepeatedKeys) {
  const Value list = parse_json(R"([{"kind": 1}, {"kind": 2}])");
  const auto key_of = [&](std::size_t i) { return (*list.if_list())[i].if_document()->begin()->key.view().data(); };
  EXPECT_EQ(key_of(0), key_of(1));
}

TEST(ParseJson, everyPositionOfAQuoteInARunIsFound) {
  for (std::size_t length = 0; length < 40; ++length) {
    const std::string text(length, 'x');
    EXPECT_EQ(parse_json('"' + text + "\"").if_text(), text);
    EXPECT_EQ(parse_json('"' + text + "\\n" + text + "\"").if_text(), text + "\n" + text);
    EXPECT_EQ(failure_of_parsing('"' + text + '\x1F' + text + '"'), "JSONDecodeError: Invalid control character at: line 1 column " +
                                                                        std::to_string(length + 2) + " (char " +
                                                                        std::to_string(length + 1) + ")");
  }
}

TEST(Json, depthIsCappedInBothDirections) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const auto limit = static_cast<std::size_t>(JSON_MAX_DEPTH);
  const Value deepest = parse_json(nested(limit));
  EXPECT_EQ(write_json(deepest, JsonForm::Canonical), nested(limit));
  EXPECT_EQ(failure_of_parsing(nested(limit + 1)), "JSONDecodeError: Nesting deeper than 1000 levels: line 1 column 1001 (char 1000)");
  EXPECT_THROW((void)write_json(List{deepest}, JsonForm::Canonical), ValueError);
  EXPECT_EQ(failure_of_parsing(std::string(1'000'000, '[')).substr(0, 36), "JSONDecodeError: Nesting deeper than");
}

TEST(WriteJson, writesALoneSurrogateBack) {
  // It sorts as its code point does: behind every other character below U+E000, before U+E000 and the emoji.
  const Document document{{"\U0001F600", 1}, {"\uE000", 2}, {"\xED\xA0\x80", 3}, {"\uD7FF", 4}};
  EXPECT_EQ(write_json(document, JsonForm::Canonical), R"({"\ud7ff":4,"\ud800":3,"\ue000":2,"\ud83d\ude00":1})");
}

}  // namespace
}  // namespace brackenfen::sync
