#include "tools/distribution/range.hpp"

#include <algorithm>
#include <charconv>

#include "sync/base/text/text.hpp"

namespace brackenfen::sync::distribution {
namespace {

/// Digits alone; a number beyond 64 bits is no number.
std::optional<std::int64_t> parse_position(std::string_view digits) {
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  std::int64_t number = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (failure != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
  return number;
}

}  // namespace

RangeAnswer answer_range(std::optional<std::string_view> header, std::int64_t size_bytes) {
  constexpr std::string_view unit = "bytes=";
  const RangeAnswer whole{RangeVerdict::Whole, {0, size_bytes}};
  const RangeAnswer unsatisfiable{RangeVerdict::Unsatisfiable, {}};
  if (!header || !header->starts_with(unit)) return whole;
  const std::string_view range = strip(header->substr(unit.size()));
  const std::size_t dash = range.find('-');
  if (dash == std::string_view::npos) return whole;
  const std::string_view first_text = range.substr(0, dash);
  const std::string_view last_text = range.substr(dash + 1);
  const std::optional<std::int64_t> last = parse_position(last_text);
  if (first_text.empty()) {  // the last N bytes
    if (!last) return whole;
    const std::int64_t length = std::min(*last, size_bytes);
    if (length == 0) return unsatisfiable;
    return {RangeVerdict::Partial, {size_bytes - length, length}};
  }
  const std::optional<std::int64_t> first = parse_position(first_text);
  if (!first || (!last && !last_text.empty()) || (last && *last < *first)) return whole;
  if (*first >= size_bytes) return unsatisfiable;
  const std::int64_t end = last ? std::min(*last, size_bytes - 1) : size_bytes - 1;
  return {RangeVerdict::Partial, {*first, end - *first + 1}};
}

}  // namespace brackenfen::sync::distribution
