// Small text operations with Python's meaning.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace brackenfen::sync {

/// str.strip(): every Unicode white-space character at both ends goes, U+00A0 and U+001C..1F among them.
[[nodiscard]] std::string_view strip(std::string_view text);
/// Strips one ASCII character from the right end.
[[nodiscard]] std::string_view rstrip_char(std::string_view text, char character);
/// str.split(separator): empty parts are kept.
[[nodiscard]] std::vector<std::string_view> split(std::string_view text, std::string_view separator);
[[nodiscard]] std::string join(const std::vector<std::string>& parts, std::string_view separator);
[[nodiscard]] std::string replace_char(std::string_view text, char from, char to);
/// ASCII letters only, which is what URL schemes, header names and operating-system names need.
[[nodiscard]] std::string ascii_lower(std::string_view text);
/// Position of the first byte that breaks UTF-8 (surrogates count as broken), or npos.
[[nodiscard]] std::size_t find_invalid_utf8(std::string_view bytes) noexcept;
/// Throws UnicodeDecodeError, with the reason that Python gives, where the bytes are not UTF-8.
void require_utf8(std::string_view bytes);

/// One character read from UTF-8, and how many bytes it took. Lone surrogates read as themselves; a byte
/// that starts no character reads as its own value and takes one byte.
struct CodePoint {
  char32_t value;
  std::size_t size;
};
/// The character at `offset`, which must lie inside `text`.
[[nodiscard]] CodePoint code_point_at(std::string_view text, std::size_t offset) noexcept;

}  // namespace brackenfen::sync
