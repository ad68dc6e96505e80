#include "sync/transport/header_rules.hpp"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"

namespace brackenfen::sync {
namespace {

bool same_name(std::string_view left, std::string_view right) {
  return left.size() == right.size() && ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool is_control(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7F;
}

/// The "token" of HTTP's grammar.
bool is_header_name(std::string_view name) {
  constexpr std::string_view PUNCTUATION = "!#$%&'*+-.^_`|~";
  return !name.empty() && std::all_of(name.begin(), name.end(), [&](char character) {
    const bool digit = character >= '0' && character <= '9';
    const char lower = static_cast<char>(character | 0x20);
    return digit || (lower >= 'a' && lower <= 'z') || PUNCTUATION.find(character) != std::string_view::npos;
  });
}

std::int64_t content_length(std::string_view value) {
  std::int64_t bytes = -1;
  const auto [end, outcome] = std::from_chars(value.data(), value.data() + value.size(), bytes);
  if (outcome != std::errc() || end != value.data() + value.size() || bytes < 0 || value.front() == '-') {
    throw Error(error_class::URLError, "the response's Content-Length is not a length");
  }
  return bytes;
}

}  // namespace

std::optional<std::string> latin1_from_text(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (std::size_t index = 0; index < text.size(); ++index) {
    const auto lead = static_cast<unsigned char>(text[index]);
    if (lead < 0x80) {
      bytes += text[index];
      continue;
    }
    if ((lead != 0xC2 && lead != 0xC3) || index + 1 == text.size()) return std::nullopt;
    const auto tail = static_cast<unsigned char>(text[++index]);
    if ((tail & 0xC0U) != 0x80) return std::nullopt;
    bytes += static_cast<char>(((lead & 0x03U) << 6U) | (tail & 0x3FU));
  }
  return bytes;
}

std::string text_from_latin1(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x80) {
      text += character;
    } else {
      text += static_cast<char>(0xC0U | (byte >> 6U));
      text += static_cast<char>(0x80U | (byte & 0x3FU));
    }
  }
  return text;
}

std::optional<std::string> header_value_bytes(std::string_view value) {
  if (std::any_of(value.begin(), value.end(), is_control)) return std::nullopt;
  return latin1_from_text(value);
}

void require_sendable_headers(const Headers& headers) {
  for (const auto& [name, value] : headers) {
    if (!is_header_name(name)) throw ValueError("a request header's name holds a character that HTTP forbids");
    if (!header_value_bytes(value)) throw ValueError("the request header " + name + " holds a character that HTTP forbids");
  }
}

std::optional<std::string_view> header_value(const Headers& headers, std::string_view name) {
  const auto found = std::find_if(headers.begin(), headers.end(), [&](const auto& header) { return same_name(header.first, name); });
  if (found == headers.end()) return std::nullopt;
  return found->second;
}

void require_unambiguous_length(const Headers& headers) {
  std::optional<std::int64_t> stated;
  for (const auto& [name, value] : headers) {
    if (!same_name(name, "Content-Length")) continue;
    // A proxy may join equal lengths into one list.
    for (const std::string_view part : split(value, ",")) {
      const std::int64_t bytes = content_length(strip(part));
      if (stated && *stated != bytes) throw Error(error_class::URLError, "the response states two different lengths");
      stated = bytes;
    }
  }
  for (const auto& [name, value] : headers) {
    if (!same_name(name, "Transfer-Encoding")) continue;
    for (const std::string_view part : split(value, ",")) {
      // None was asked for, and a packed body may grow a thousandfold as it is unpacked.
      if (!same_name(strip(part), "chunked") && !same_name(strip(part), "identity")) {
        throw Error(error_class::URLError, "the response has a transfer encoding that was not asked for");
      }
    }
  }
  if (stated && header_value(headers, "Transfer-Encoding")) {
    throw Error(error_class::URLError, "the response states a length and an encoding that has its own");
  }
}

}  // namespace brackenfen::sync
