#include "sync/base/text/text.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "sync/base/error.hpp"

namespace brackenfen::sync {
namespace {

unsigned byte_at(std::string_view bytes, std::size_t at) noexcept { return static_cast<unsigned char>(bytes[at]); }
bool is_continuation(std::string_view bytes, std::size_t at) noexcept { return at < bytes.size() && (byte_at(bytes, at) & 0xC0U) == 0x80U; }

bool is_space(char32_t c) noexcept {
  return (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x20) || c == 0x85 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
         c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

/// The length of the well-formed character at `at`, or 0.
std::size_t utf8_size(std::string_view bytes, std::size_t at) noexcept {
  const unsigned lead = byte_at(bytes, at);
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  if (!is_continuation(bytes, at + 1)) return 0;
  const unsigned second = byte_at(bytes, at + 1);
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) {
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F)) return 0;  // too long, or a surrogate
    return is_continuation(bytes, at + 2) ? 3 : 0;
  }
  if ((lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) return 0;  // too long, or beyond U+10FFFF
  return is_continuation(bytes, at + 2) && is_continuation(bytes, at + 3) ? 4 : 0;
}

}  // namespace

CodePoint code_point_at(std::string_view text, std::size_t offset) noexcept {
  const unsigned lead = byte_at(text, offset);
  const std::size_t size = lead < 0xC2 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 1;
  if (size == 1) return {static_cast<char32_t>(lead), 1};
  char32_t value = lead & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if (!is_continuation(text, offset + i)) return {static_cast<char32_t>(lead), 1};
    value = (value << 6U) | (byte_at(text, offset + i) & 0x3FU);
  }
  return {value, size};
}

std::string_view strip(std::string_view text) {
  while (!text.empty()) {
    const CodePoint first = code_point_at(text, 0);
    if (!is_space(first.value)) break;
    text.remove_prefix(first.size);
  }
  while (!text.empty()) {
    std::size_t last = text.size() - 1;
    while (last > 0 && is_continuation(text, last)) --last;
    const CodePoint point = code_point_at(text, last);
    if (!is_space(point.value) || last + point.size != text.size()) break;
    text.remove_suffix(point.size);
  }
  return text;
}

std::string_view rstrip_char(std::string_view text, char character) {
  return text.substr(0, text.find_last_not_of(character) + 1);  // npos + 1 is 0
}

std::vector<std::string_view> split(std::string_view text, std::string_view separator) {
  std::vector<std::string_view> parts;
  for (;;) {
    const std::size_t at = text.find(separator);
    parts.push_back(text.substr(0, at));
    if (at == std::string_view::npos) return parts;
    text.remove_prefix(at + separator.size());
  }
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string joined;
  for (const std::string& part : parts) {
    if (&part != &parts.front()) joined += separator;
    joined += part;
  }
  return joined;
}

std::string replace_char(std::string_view text, char from, char to) {
  std::string replaced(text);
  std::replace(replaced.begin(), replaced.end(), from, to);
  return replaced;
}

std::string ascii_lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return lower;
}

std::size_t find_invalid_utf8(std::string_view bytes) noexcept {
  constexpr std::uint64_t HIGH_BITS = 0x8080808080808080U;
  std::size_t at = 0;
  while (at < bytes.size()) {
    if (bytes.size() - at >= sizeof(std::uint64_t)) {
      std::uint64_t word = 0;
      std::memcpy(&word, bytes.data() + at, sizeof word);
      if ((word & HIGH_BITS) == 0) {
        at += sizeof word;
        continue;
      }
    }
    const std::size_t size = utf8_size(bytes, at);
    if (size == 0) return at;
    at += size;
  }
  return std::string_view::npos;
}

void require_utf8(std::string_view bytes) {
  const std::size_t start = find_invalid_utf8(bytes);
  if (start == std::string_view::npos) return;
  const unsigned lead = byte_at(bytes, start);
  if (lead < 0xC2 || lead > 0xF4) throw UnicodeDecodeError(bytes, start, "invalid start byte");
  // A sequence that only lacks its end is told apart from one that goes on wrongly.
  const std::size_t wanted = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  std::string padded(bytes.substr(start, wanted));
  const bool cut_off = padded.size() < wanted;
  if (cut_off) {
    if (padded.size() == 1) padded += lead == 0xE0 ? '\xA0' : lead == 0xF0 ? '\x90' : '\x80';
    padded.resize(wanted, '\x80');
  }
  throw UnicodeDecodeError(bytes, start,
                           cut_off && utf8_size(padded, 0) == wanted ? "unexpected end of data" : "invalid continuation byte");
}

}  // namespace brackenfen::sync
