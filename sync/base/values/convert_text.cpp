// str() and repr(): how values read for people.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/stack_room.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {
namespace {

struct CharacterRange {
  char32_t first;
  char32_t last;
};

/// What repr() escapes: controls, format characters, separators other than the blank, surrogates, private
/// use, and the unassigned ends of the planes. Single unassigned characters inside a script print as they are.
constexpr CharacterRange UNPRINTABLE[] = {
    {0x0000, 0x001F},   {0x007F, 0x00A0},   {0x00AD, 0x00AD},   {0x0600, 0x0605},   {0x061C, 0x061C},   {0x06DD, 0x06DD},
    {0x070F, 0x070F},   {0x0890, 0x0891},   {0x08E2, 0x08E2},   {0x1680, 0x1680},   {0x180E, 0x180E},   {0x2000, 0x200F},
    {0x2028, 0x202F},   {0x205F, 0x206F},   {0x3000, 0x3000},   {0xD800, 0xF8FF},   {0xFEFF, 0xFEFF},   {0xFFF0, 0xFFFB},
    {0xFFFE, 0xFFFF},   {0x110BD, 0x110BD}, {0x110CD, 0x110CD}, {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A},
    {0x1FFFE, 0x1FFFF}, {0x2FA1E, 0x2FFFF}, {0x323B0, 0xE00FF}, {0xE01F0, 0x10FFFF}};

bool is_printable(char32_t c) noexcept {
  const auto* const range = std::lower_bound(std::begin(UNPRINTABLE), std::end(UNPRINTABLE), c,
                                             [](const CharacterRange& candidate, char32_t wanted) { return candidate.last < wanted; });
  return range == std::end(UNPRINTABLE) || c < range->first;
}

void append_quoted(std::string& out, std::string_view text) {
  const bool double_quotes = text.find('\'') != std::string_view::npos && text.find('"') == std::string_view::npos;
  const char quote = double_quotes ? '"' : '\'';
  out += quote;
  for (std::size_t at = 0; at < text.size();) {
    const CodePoint point = code_point_at(text, at);
    const auto number = static_cast<std::uint32_t>(point.value);
    if (point.value == '\n') {
      out += "\\n";
    } else if (point.value == '\r') {
      out += "\\r";
    } else if (point.value == '\t') {
      out += "\\t";
    } else if (point.value == '\\' || point.value == static_cast<unsigned char>(quote)) {
      out += '\\';
      out += static_cast<char>(point.value);
    } else if (point.value < 0x80 ? point.value >= ' ' && point.value < 0x7F : point.size > 1 && is_printable(point.value)) {
      out += text.substr(at, point.size);
    } else if (point.value < 0x100) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", number);
    } else if (point.value < 0x10000) {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", number);
    } else {
      fmt::format_to(std::back_inserter(out), "\\U{:08x}", number);
    }
    at += point.size;
  }
  out += quote;
}

void append_quoted(std::string& out, const Value& value, int depth) {
  if (depth > JSON_MAX_DEPTH || !has_stack_room())
    throw RuntimeError("maximum recursion depth exceeded while getting the repr of an object");
  std::string_view separator;
  switch (value.kind()) {
    case Value::Kind::Null:
      out += "None";
      break;
    case Value::Kind::Boolean:
      out += *value.if_boolean() ? "True" : "False";
      break;
    case Value::Kind::Integer:
      out += std::to_string(*value.if_integer());
      break;
    case Value::Kind::BigInteger:
      out += *value.if_big_integer();
      break;
    case Value::Kind::Real:
      out += real_text(*value.if_real());
      break;
    case Value::Kind::Text:
      append_quoted(out, *value.if_text());
      break;
    case Value::Kind::List:
      out += '[';
      for (const Value& element : *value.if_list()) {
        out += std::exchange(separator, ", ");
        append_quoted(out, element, depth + 1);
      }
      out += ']';
      break;
    case Value::Kind::Document:
      out += '{';
      for (const Member& member : *value.if_document()) {
        out += std::exchange(separator, ", ");
        append_quoted(out, member.key.view());
        out += ": ";
        append_quoted(out, member.value, depth + 1);
      }
      out += '}';
      break;
  }
}

}  // namespace

std::string to_text(const Value& value) {
  if (const auto text = value.if_text()) return std::string(*text);
  return to_quoted(value);
}

std::string to_quoted(const Value& value) {
  std::string quoted;
  append_quoted(quoted, value, 0);
  return quoted;
}

std::string to_quoted(std::string_view text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  append_quoted(quoted, text);
  return quoted;
}

std::string real_text(double number) {
  if (std::isnan(number)) return "nan";
  if (std::isinf(number)) return number < 0 ? "-inf" : "inf";
  // The shortest digits that read back, as "d.ddde+XX"; then laid out as Python does.
  std::array<char, 32> buffer{};
  const auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number, std::chars_format::scientific);
  const std::string_view scientific(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
  const std::size_t e = scientific.find('e');
  int exponent = 0;
  const std::size_t exponent_digits = e + (scientific[e + 1] == '+' ? 2 : 1);
  std::from_chars(scientific.data() + exponent_digits, end, exponent);
  if (exponent < -4 || exponent >= 16) return std::string(scientific);
  std::string digits;
  std::copy_if(scientific.begin(), scientific.begin() + static_cast<std::ptrdiff_t>(e), std::back_inserter(digits),
               [](char c) { return c != '.' && c != '-'; });
  if (exponent < 0) {
    digits.insert(0, static_cast<std::size_t>(-exponent), '0');
    exponent = 0;
  }
  const auto whole_digits = static_cast<std::size_t>(exponent) + 1;
  if (digits.size() <= whole_digits) digits.resize(whole_digits + 1, '0');
  digits.insert(whole_digits, 1, '.');
  return (std::signbit(number) ? "-" : "") + digits;
}

std::string text_or_empty(const Value& value) { return value.truthy() ? to_text(value) : std::string(); }

std::string_view stripped_text(const Value& value) {
  const std::optional<std::string_view> text = value.if_text();
  return text ? strip(*text) : std::string_view();
}

}  // namespace brackenfen::sync
