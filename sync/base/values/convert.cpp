#include "sync/base/values/convert.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"

namespace brackenfen::sync {
namespace {

bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

/// The digit zero of every decimal digit block of Unicode 15; nine more follow each of them.
constexpr char32_t DIGIT_ZEROS[] = {
    0x0030,  0x0660,  0x06F0,  0x07C0,  0x0966,  0x09E6,  0x0A66,  0x0AE6,  0x0B66,  0x0BE6,  0x0C66,  0x0CE6,  0x0D66,  0x0DE6,
    0x0E50,  0x0ED0,  0x0F20,  0x1040,  0x1090,  0x17E0,  0x1810,  0x1946,  0x19D0,  0x1A80,  0x1A90,  0x1B50,  0x1BB0,  0x1C40,
    0x1C50,  0xA620,  0xA8D0,  0xA900,  0xA9D0,  0xA9F0,  0xAA50,  0xABF0,  0xFF10,  0x104A0, 0x10D30, 0x11066, 0x110F0, 0x11136,
    0x111D0, 0x112F0, 0x11450, 0x114D0, 0x11650, 0x116C0, 0x11730, 0x118E0, 0x11950, 0x11C50, 0x11D50, 0x11DA0, 0x11F50, 0x16A60,
    0x16AC0, 0x16B50, 0x1D7CE, 0x1D7D8, 0x1D7E2, 0x1D7EC, 0x1D7F6, 0x1E140, 0x1E2F0, 0x1E4F0, 0x1E950, 0x1FBF0};

std::string_view strip_ascii_blanks(std::string_view text) noexcept {
  constexpr std::string_view BLANKS = " \t\n\v\f\r";
  text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
  return text.substr(0, text.find_last_not_of(BLANKS) + 1);  // npos + 1 is 0
}

/// The ASCII form of a number's text: digits of any script and blanks outside ASCII become ASCII ones, other
/// characters one that no number has; then the blanks around it go. U+001C..1F are no blanks here, as in Python.
std::string number_text(std::string_view text) {
  std::string ascii;
  for (std::size_t at = 0; at < text.size();) {
    const CodePoint point = code_point_at(text, at);
    const std::string_view character = text.substr(at, point.size);
    at += point.size;
    if (point.value < 0x80) {
      ascii += character;
      continue;
    }
    const char32_t zero = *(std::upper_bound(std::begin(DIGIT_ZEROS), std::end(DIGIT_ZEROS), point.value) - 1);
    const char other = strip(character).empty() ? ' ' : '?';
    ascii += point.value < zero + 10 ? static_cast<char>('0' + (point.value - zero)) : other;
  }
  return std::string(strip_ascii_blanks(ascii));
}

/// Takes single underscores out from between digits; absent where one stands elsewhere.
std::optional<std::string> without_underscores(std::string_view text) {
  std::string plain;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '_') {
      plain += text[at];
    } else if (at == 0 || at + 1 == text.size() || !is_digit(text[at - 1]) || !is_digit(text[at + 1])) {
      return std::nullopt;
    }
  }
  return plain;
}

std::optional<Value> parse_integer(std::string_view text) {
  const std::optional<std::string> plain = without_underscores(number_text(text));
  if (!plain) return std::nullopt;
  std::string_view decimal = *plain;
  if (decimal.starts_with('+')) decimal.remove_prefix(1);
  const std::string_view digits = decimal.substr(decimal.starts_with('-') && decimal.data() == plain->data() ? 1 : 0);
  if (digits.empty() || !std::all_of(digits.begin(), digits.end(), is_digit)) return std::nullopt;
  return Value::integer_from_decimal(decimal);
}

Value truncated(double real) {
  if (std::isnan(real)) throw ValueError("cannot convert float NaN to integer");
  if (std::isinf(real)) throw OverflowError("cannot convert float infinity to integer");
  std::array<char, 400> digits{};  // the largest double has 309
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), std::trunc(real), std::chars_format::fixed, 0);
  return Value::integer_from_decimal(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
}

/// The first 200 characters of the quoted text, as many as the host's own message shows.
std::string shortened_quote(std::string_view text) {
  const std::string quoted = to_quoted(text);
  std::size_t end = 0;
  for (int count = 0; count < 200 && end < quoted.size(); ++count) end += code_point_at(quoted, end).size;
  return quoted.substr(0, end);
}

/// What `int(value)` gives for everything but a text that does not parse, which is absent, as are the
/// values without a number in them.
std::optional<Value> integer_of(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Boolean:
      return Value(*value.if_boolean() ? 1 : 0);
    case Value::Kind::Integer:
    case Value::Kind::BigInteger:
      return value;
    case Value::Kind::Real:
      return truncated(*value.if_real());
    case Value::Kind::Text:
      return parse_integer(*value.if_text());
    default:
      return std::nullopt;
  }
}

/// std::from_chars, but a number too large becomes an infinity and one too small a zero. Absent where the
/// text is not a plain decimal number from its first to its last character.
std::optional<double> decimal_real(std::string_view text) {
  double number = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (end != text.data() + text.size() || error == std::errc::invalid_argument) return std::nullopt;
  if (error == std::errc{}) return number;
  // Out of range: the place of the first digit that is not zero, counted with the exponent, tells which way.
  const bool negative = text.starts_with('-');
  const std::size_t exponent_at = std::min(text.find_first_of("eE"), text.size());
  const std::string_view mantissa = text.substr(0, exponent_at);
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  const std::size_t first = mantissa.find_first_of("123456789");
  std::int64_t exponent = 0;
  if (exponent_at < text.size()) {
    std::string_view digits = text.substr(exponent_at + 1);
    if (digits.starts_with('+')) digits.remove_prefix(1);
    if (std::from_chars(digits.data(), digits.data() + digits.size(), exponent).ec == std::errc::result_out_of_range) {
      exponent = digits.starts_with('-') ? std::numeric_limits<std::int32_t>::min() : std::numeric_limits<std::int32_t>::max();
    }
  }
  const bool large = static_cast<std::int64_t>(point) - static_cast<std::int64_t>(first) + exponent > 0;
  const double magnitude = large ? std::numeric_limits<double>::infinity() : 0.0;
  return negative ? -magnitude : magnitude;
}

}  // namespace

std::string_view type_name(const Value& value) noexcept {
  switch (value.kind()) {
    case Value::Kind::Null:
      return "NoneType";
    case Value::Kind::Boolean:
      return "bool";
    case Value::Kind::Integer:
    case Value::Kind::BigInteger:
      return "int";
    case Value::Kind::Real:
      return "float";
    case Value::Kind::Text:
      return "str";
    case Value::Kind::List:
      return "list";
    case Value::Kind::Document:
      return "dict";
  }
  return "";
}

Value to_integer(const Value& value) {
  if (std::optional<Value> integer = integer_of(value)) return *std::move(integer);
  if (const auto text = value.if_text()) throw ValueError("invalid literal for int() with base 10: " + shortened_quote(*text));
  throw TypeError("int() argument must be a string, a bytes-like object or a real number, not '" + std::string(type_name(value)) + "'");
}

std::int64_t to_int64(const Value& value) {
  if (const auto number = to_integer(value).if_integer()) return *number;
  throw OverflowError("Python int too large to convert to C long");
}

std::optional<Value> to_integer_or_absent(const Value& value) {
  if (const auto real = value.if_real(); real && !std::isfinite(*real)) return std::nullopt;
  return integer_of(value);
}

std::optional<double> parse_real(std::string_view text) {
  const bool plain_start = !text.empty() && (is_digit(text[0]) || (text[0] == '-' && text.size() > 1 && is_digit(text[1])));
  if (plain_start) {
    if (const auto number = decimal_real(text)) return number;
  }
  const std::optional<std::string> plain = without_underscores(number_text(text));
  if (!plain) return std::nullopt;
  std::string_view number = *plain;
  if (number.starts_with('+')) {
    number.remove_prefix(1);
    if (number.starts_with('-')) return std::nullopt;
  }
  // from_chars knows more spellings of nan than Python does.
  const std::string word = ascii_lower(number.substr(number.starts_with('-') ? 1 : 0));
  if (word.empty() || !(is_digit(word[0]) || word[0] == '.' || word == "inf" || word == "infinity" || word == "nan")) return std::nullopt;
  return decimal_real(number);
}

double to_real(const Value& value) {
  if (const auto real = value.if_real()) return *real;
  if (const auto text = value.if_text()) {
    if (const auto real = parse_real(*text)) return *real;
    throw ValueError("could not convert string to float: " + to_quoted(*text));
  }
  if (const auto digits = value.if_big_integer()) {
    const double real = decimal_real(*digits).value_or(0.0);
    if (std::isinf(real)) throw OverflowError("int too large to convert to float");
    return real;
  }
  if (const auto integer = integer_of(value)) return static_cast<double>(*integer->if_integer());
  throw TypeError("float() argument must be a string or a real number, not '" + std::string(type_name(value)) + "'");
}

int compare_integers(const Value& left, const Value& right) {
  const auto sign = [](auto a, auto b) { return a < b ? -1 : a > b ? 1 : 0; };
  const Value a = to_integer(left);
  const Value b = to_integer(right);
  if (a.if_integer() && b.if_integer()) return sign(*a.if_integer(), *b.if_integer());
  const std::string x = to_text(a);
  const std::string y = to_text(b);
  const bool negative = x.starts_with('-');
  if (negative != y.starts_with('-')) return negative ? -1 : 1;
  const int magnitude = x.size() != y.size() ? sign(x.size(), y.size()) : sign(x, y);
  return negative ? -magnitude : magnitude;
}

}  // namespace brackenfen::sync
