#include "sync/base/json.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "sync/base/error.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::string_literals;

std::string error_of(std::string_view document) {
  try {
    (void)parse_json(document);
    return "none";
  } catch (const Error& error) {
    return std::string(error.error_class().name()) + ": " + error.text();
  }
}

TEST(ParseJson, refusesWithPythonsWordsAndPositions) {
  const struct {
    std::string document;
    const char* message;
  } rows[] = {
      {"", "Expecting value: line 1 column 1 (char 0)"},
      {" \n [1,]", "Expecting value: line 2 column 5 (char 6)"},
      {"[Inf]", "Expecting value: line 1 column 2 (char 1)"},
      {"-NaN", "Expecting value: line 1 column 1 (char 0)"},
      {"{\"a\": 1,}", "Expecting property name enclosed in double quotes: line 1 column 9 (char 8)"},
      {"{\"\u00e9\" 1}", "Expecting ':' delimiter: line 1 column 6 (char 5)"},
      {"[1 2]", "Expecting ',' delimiter: line 1 column 4 (char 3)"},
      {"[01]", "Expecting ',' delimiter: line 1 column 3 (char 2)"},
      {"[\"\U0001F600", "Unterminated string starting at: line 1 column 2 (char 1)"},
      {"\"a\nb\"", "Invalid control character at: line 1 column 3 (char 2)"},
      {"\"\\x\"", "Invalid \\escape: line 1 column 2 (char 1)"},
      {"\"\\u12g4\"", "Invalid \\uXXXX escape: line 1 column 3 (char 2)"},
      {"\"\\ud800\"", "Lone surrogate in \\uXXXX escape: line 1 column 2 (char 1)"},
      {"\"\\ud800\\u0041\"", "Lone surrogate in \\uXXXX escape: line 1 column 2 (char 1)"},
      {"1 x", "Extra data: line 1 column 3 (char 2)"},
      {"1\0"s, "Extra data: line 1 column 2 (char 1)"},
      {"\xEF\xBB\xBF{}", "Unexpected UTF-8 BOM (decode using utf-8-sig): line 1 column 1 (char 0)"},
  };
  for (const auto& row : rows) EXPECT_EQ(error_of(row.document), "JSONDecodeError: "s + row.message) << row.document;
}

TEST(ParseJson, refusesBytesThatAreNoUtf8BeforeAnythingElse) {
  EXPECT_EQ(error_of("[\xC3\x28"), "UnicodeDecodeError: 'utf-8' codec can't decode byte 0xc3 in position 1: invalid continuation byte");
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
    EXPECT_EQ(error_of('"' + text + '\x1F' + text + '"'), "JSONDecodeError: Invalid control character at: line 1 column " +
                                                              std::to_string(length + 2) + " (char " + std::to_string(length + 1) + ")");
  }
}

TEST(Json, depthIsCappedInBothDirections) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const auto limit = static_cast<std::size_t>(JSON_MAX_DEPTH);
  const Value deepest = parse_json(nested(limit));
  EXPECT_EQ(write_json(deepest, JsonForm::Canonical), nested(limit));
  EXPECT_EQ(error_of(nested(limit + 1)), "JSONDecodeError: Nesting deeper than 1000 levels: line 1 column 1001 (char 1000)");
  EXPECT_THROW((void)write_json(List{deepest}, JsonForm::Canonical), ValueError);
  EXPECT_EQ(error_of(std::string(1'000'000, '[')).substr(0, 36), "JSONDecodeError: Nesting deeper than");
}

TEST(WriteJson, printsItsThreeForms) {
  const Value value = parse_json(R"({"z": [1, {}, []], "é": null, "a": {"y": true, "b": -0.0}})");
  EXPECT_EQ(write_json(value, JsonForm::InsertionOrder), R"({"z": [1, {}, []], "\u00e9": null, "a": {"y": true, "b": -0.0}})");
  EXPECT_EQ(write_json(value, JsonForm::SortedKeys), R"({"a": {"b": -0.0, "y": true}, "z": [1, {}, []], "\u00e9": null})");
  EXPECT_EQ(write_json(value, JsonForm::Canonical), R"({"a":{"b":-0.0,"y":true},"z":[1,{},[]],"\u00e9":null})");
}

TEST(WriteJson, escapesTexts) {
  EXPECT_EQ(write_json("\"\\/\b\f\n\r\t\x01\x7F\u00e9\uFFFF\U0001F600", JsonForm::Canonical),
            R"("\"\\/\b\f\n\r\t\u0001\u007f\u00e9\uffff\ud83d\ude00")");
}

TEST(WriteJson, writesALoneSurrogateBack) {
  // It sorts as its code point does: behind every other character below U+E000, before U+E000 and the emoji.
  const Document document{{"\U0001F600", 1}, {"\uE000", 2}, {"\xED\xA0\x80", 3}, {"\uD7FF", 4}};
  EXPECT_EQ(write_json(document, JsonForm::Canonical), R"({"\ud7ff":4,"\ud800":3,"\ue000":2,"\ud83d\ude00":1})");
}

TEST(WriteJson, writesNumbersThatJsonDoesNotKnow) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(write_json(List{std::numeric_limits<double>::quiet_NaN(), infinity, -infinity}, JsonForm::Canonical),
            "[NaN,Infinity,-Infinity]");
}

}  // namespace
}  // namespace brackenfen::sync
