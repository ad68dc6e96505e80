// What is meant by "converted to an integer", "the text form" and "the quoted form" of a value: Python's
// int(), float(), str() and repr(), in one place.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// int(value): texts with blanks around them, signs and underscores; numbers are cut towards zero;
/// booleans count. Throws ValueError for a text that is no integer and for nan, TypeError for null, lists
/// and documents, OverflowError for an infinity. The result is an integer Value of either kind.
[[nodiscard]] Value to_integer(const Value& value);

/// The same where only 64 bits are of use. A larger integer throws OverflowError.
[[nodiscard]] std::int64_t to_int64(const Value& value);

/// The integer, or absent where there is none: by the value's type or form, nan or an infinity.
[[nodiscard]] std::optional<Value> to_integer_or_absent(const Value& value);

/// float(value). Throws ValueError or TypeError.
[[nodiscard]] double to_real(const Value& value);
/// float(text), "nan" and "inf" included; absent where it does not parse.
[[nodiscard]] std::optional<double> parse_real(std::string_view text);

/// str(value).
[[nodiscard]] std::string to_text(const Value& value);
/// The same for a field that may be left out: empty for null and everything else that is false.
[[nodiscard]] std::string text_or_empty(const Value& value);
/// A text without the white space at its ends; empty for a value that is no text. A view into `value`.
[[nodiscard]] std::string_view stripped_text(const Value& value);
/// repr(value): quotes, escapes, list brackets as Python prints them.
[[nodiscard]] std::string to_quoted(const Value& value);
[[nodiscard]] std::string to_quoted(std::string_view text);
/// For everything else that is text, which could become either of the two.
template <std::convertible_to<std::string_view> T>
[[nodiscard]] std::string to_quoted(const T& text) {
  return to_quoted(std::string_view(text));
}

/// The name of the type that the value has in the host language: "NoneType", "int", "dict", ...
[[nodiscard]] std::string_view type_name(const Value& value) noexcept;

/// The shortest decimal that reads back as `number`, as Python prints floats (also "nan", "inf").
[[nodiscard]] std::string real_text(double number);

/// Compares two integer Values of any size: negative, zero or positive.
[[nodiscard]] int compare_integers(const Value& left, const Value& right);

}  // namespace brackenfen::sync
