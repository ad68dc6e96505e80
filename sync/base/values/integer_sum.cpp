#include "sync/base/values/integer_sum.hpp"

#include <algorithm>
#include <string>
#include <string_view>

namespace brackenfen::sync {
namespace {

/// A decimal number taken apart; `digits` has no leading zeros.
struct Decimal {
  bool negative = false;
  std::string digits;
};

Decimal decimal(const Value& integer) {
  const auto big = integer.if_big_integer();
  std::string text = big ? std::string(*big) : std::to_string(integer.if_integer().value_or(0));
  const bool negative = text.front() == '-';
  if (negative) text.erase(0, 1);
  return {negative, std::move(text)};
}

bool smaller(std::string_view left, std::string_view right) {
  return left.size() != right.size() ? left.size() < right.size() : left < right;
}

std::string add_digits(std::string_view left, std::string_view right) {
  std::string sum;
  int carry = 0;
  for (std::size_t place = 0; place < std::max(left.size(), right.size()) || carry; ++place) {
    if (place < left.size()) carry += left[left.size() - 1 - place] - '0';
    if (place < right.size()) carry += right[right.size() - 1 - place] - '0';
    sum.push_back(static_cast<char>('0' + carry % 10));
    carry /= 10;
  }
  std::reverse(sum.begin(), sum.end());
  return sum;
}

/// `larger` - `lesser`, where larger >= lesser.
std::string subtract_digits(std::string_view larger, std::string_view lesser) {
  std::string difference;
  int borrow = 0;
  for (std::size_t place = 0; place < larger.size(); ++place) {
    int digit = larger[larger.size() - 1 - place] - '0' - borrow;
    if (place < lesser.size()) digit -= lesser[lesser.size() - 1 - place] - '0';
    borrow = digit < 0 ? 1 : 0;
    difference.push_back(static_cast<char>('0' + digit + 10 * borrow));
  }
  while (difference.size() > 1 && difference.back() == '0') difference.pop_back();
  std::reverse(difference.begin(), difference.end());
  return difference;
}

}  // namespace

Value add_integers(const Value& left, const Value& right) {
  const auto small_left = left.if_integer();
  const auto small_right = right.if_integer();
  std::int64_t sum = 0;
  if (small_left && small_right && !__builtin_add_overflow(*small_left, *small_right, &sum)) return sum;

  Decimal a = decimal(left);
  Decimal b = decimal(right);
  if (a.negative == b.negative) return Value::integer_from_decimal((a.negative ? "-" : "") + add_digits(a.digits, b.digits));
  if (smaller(a.digits, b.digits)) std::swap(a, b);
  return Value::integer_from_decimal((a.negative ? "-" : "") + subtract_digits(a.digits, b.digits));
}

}  // namespace brackenfen::sync
