// Conversions that Python has no counterpart of; the others are compared with Python itself by json_property_test.py.
#include "sync/base/convert.hpp"

#include <gtest/gtest.h>

#include <limits>

#include "sync/base/error.hpp"

namespace brackenfen::sync {
namespace {

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

TEST(ToInteger, narrowsAndForgivesWhereAsked) {
  EXPECT_EQ(to_int64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_THROW((void)to_int64("9223372036854775808"), OverflowError);
  EXPECT_EQ(to_integer_or_absent("x"), std::nullopt);
  EXPECT_EQ(to_integer_or_absent(nullptr), std::nullopt);
  EXPECT_EQ(to_integer_or_absent(NOT_A_NUMBER), std::nullopt);
  EXPECT_EQ(to_integer_or_absent("7"), Value(7));
  EXPECT_THROW((void)to_integer_or_absent(INF), OverflowError);
}

TEST(ToQuoted, printsWhatJsonCannotCarry) {
  EXPECT_EQ(to_quoted("\xED\xA0\x80\xff"), "'\\ud800\\xff'");
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
