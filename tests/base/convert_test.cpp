// What int(), float(), str() and repr() make of the values at hand; the rows were taken from Python.
#include "sync/base/convert.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include "sync/base/error.hpp"
#include "sync/base/json.hpp"

namespace brackenfen::sync {
namespace {

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

std::string outcome(const std::function<std::string()>& operation) {
  try {
    return operation();
  } catch (const Error& error) {
    return std::string(error.error_class().name()) + ": " + error.text();
  }
}

TEST(ToInteger, acceptsWhatPythonAccepts) {
  const struct {
    Value value;
    const char* expected;
  } rows[] = {
      {" \t12\n", "12"},
      {"+1_2", "12"},
      {"-007", "-7"},
      {"\u00a0\uff11\uff12\u3000", "12"},
      {"\u0663\u0967", "31"},
      {"\U0001D7D8", "0"},
      {"123456789012345678901234567890", "123456789012345678901234567890"},
      {true, "1"},
      {-1.99, "-1"},
      {1e22, "10000000000000000000000"},
      {"", "ValueError: invalid literal for int() with base 10: ''"},
      {"12.0", "ValueError: invalid literal for int() with base 10: '12.0'"},
      {"1__2", "ValueError: invalid literal for int() with base 10: '1__2'"},
      {"_1", "ValueError: invalid literal for int() with base 10: '_1'"},
      {"- 1", "ValueError: invalid literal for int() with base 10: '- 1'"},
      {"+-1", "ValueError: invalid literal for int() with base 10: '+-1'"},
      {"0x10", "ValueError: invalid literal for int() with base 10: '0x10'"},
      {"\u00bd", "ValueError: invalid literal for int() with base 10: '\u00bd'"},
      {NOT_A_NUMBER, "ValueError: cannot convert float NaN to integer"},
      {-INF, "OverflowError: cannot convert float infinity to integer"},
      {nullptr, "TypeError: int() argument must be a string, a bytes-like object or a real number, not 'NoneType'"},
      {List{1}, "TypeError: int() argument must be a string, a bytes-like object or a real number, not 'list'"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(outcome([&] { return to_text(to_integer(row.value)); }), row.expected) << to_quoted(row.value);
  }
}

TEST(ToInteger, narrowsAndForgivesWhereAsked) {
  EXPECT_EQ(to_int64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_THROW((void)to_int64("9223372036854775808"), OverflowError);
  EXPECT_EQ(to_integer_or_absent("x"), std::nullopt);
  EXPECT_EQ(to_integer_or_absent(nullptr), std::nullopt);
  EXPECT_EQ(to_integer_or_absent(NOT_A_NUMBER), std::nullopt);
  EXPECT_EQ(to_integer_or_absent("7"), Value(7));
  EXPECT_THROW((void)to_integer_or_absent(INF), OverflowError);
}

TEST(ToReal, acceptsWhatPythonAccepts) {
  const struct {
    Value value;
    const char* expected;
  } rows[] = {
      {" 1_0.5_0e+1 ", "105.0"},
      {".5", "0.5"},
      {"5.", "5.0"},
      {"-Infinity", "-inf"},
      {"+nan", "nan"},
      {"\uff11.5", "1.5"},
      {"1e999", "inf"},
      {"-1e-999", "-0.0"},
      {true, "1.0"},
      {3, "3.0"},
      {"infinity", "inf"},
      {"nan(1)", "ValueError: could not convert string to float: 'nan(1)'"},
      {"0x1p3", "ValueError: could not convert string to float: '0x1p3'"},
      {"1_e5", "ValueError: could not convert string to float: '1_e5'"},
      {"", "ValueError: could not convert string to float: ''"},
      {".", "ValueError: could not convert string to float: '.'"},
      {"+-1", "ValueError: could not convert string to float: '+-1'"},
      {nullptr, "TypeError: float() argument must be a string or a real number, not 'NoneType'"},
      {Value::integer_from_decimal("1" + std::string(400, '0')), "OverflowError: int too large to convert to float"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(outcome([&] { return real_text(to_real(row.value)); }), row.expected) << to_quoted(row.value).substr(0, 60);
}

TEST(RealText, isTheShortestInPythonsLayout) {
  const struct {
    double number;
    const char* expected;
  } rows[] = {{0.1, "0.1"},
              {-0.0, "-0.0"},
              {1e15, "1000000000000000.0"},
              {1e16, "1e+16"},
              {123456789012345680.0, "1.2345678901234568e+17"},
              {0.0001, "0.0001"},
              {0.00001, "1e-05"},
              {5e-324, "5e-324"},
              {-1.5, "-1.5"},
              {9007199254740993.0, "9007199254740992.0"},
              {1e100, "1e+100"},
              {100.0, "100.0"},
              {0.001234, "0.001234"},
              {-INF, "-inf"},
              {NOT_A_NUMBER, "nan"}};
  for (const auto& row : rows) EXPECT_EQ(real_text(row.number), row.expected);
}

TEST(ToQuoted, choosesQuotesAndEscapes) {
  const struct {
    std::string text;
    const char* expected;
  } rows[] = {
      {"plain", "'plain'"},
      {"it's", "\"it's\""},
      {"\"it's\"", "'\"it\\'s\"'"},
      {std::string("\0\t\n\r\\\x1b\x7f", 7), "'\\x00\\t\\n\\r\\\\\\x1b\\x7f'"},
      {"\u00e9\u4e2d\U0001F600", "'\u00e9\u4e2d\U0001F600'"},
      {"\u00a0\u00ad\u200b\u2028\ufeff\ufffe\U000E0001", "'\\xa0\\xad\\u200b\\u2028\\ufeff\\ufffe\\U000e0001'"},
      {"\xED\xA0\x80", "'\\ud800'"},
      {"\xff", "'\\xff'"},
  };
  for (const auto& row : rows) EXPECT_EQ(to_quoted(row.text), row.expected);
}

TEST(ToQuoted, printsContainersAsPythonDoes) {
  const Value value = parse_json(R"({"a": [1, "x", null, true, 1.0, {}], "it's": [], "n": 99999999999999999999})");
  EXPECT_EQ(to_text(value), R"({'a': [1, 'x', None, True, 1.0, {}], "it's": [], 'n': 99999999999999999999})");
  EXPECT_EQ(to_text("x"), "x");
  EXPECT_EQ(to_text(nullptr), "None");
  Value deep;
  for (int i = 0; i < 100'000; ++i) deep = List{std::move(deep)};
  EXPECT_THROW((void)to_quoted(deep), RuntimeError);
}

TEST(CompareIntegers, ordersIntegersOfEverySize) {
  const char* const ascending[] = {"-100000000000000000000", "-99999999999999999999", "-9223372036854775808", "-1", "0",
                                   "9223372036854775807",    "9223372036854775808",   "99999999999999999999"};
  for (std::size_t i = 0; i < std::size(ascending); ++i) {
    for (std::size_t j = 0; j < std::size(ascending); ++j) {
      const int order = compare_integers(Value::integer_from_decimal(ascending[i]), Value::integer_from_decimal(ascending[j]));
      EXPECT_EQ(order < 0, i < j);
      EXPECT_EQ(order == 0, i == j);
    }
  }
}

}  // namespace
}  // namespace brackenfen::sync
