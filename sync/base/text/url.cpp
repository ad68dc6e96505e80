#include "sync/base/text/url.hpp"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <tuple>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"

namespace brackenfen::sync {
namespace {

bool is_letter(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
bool is_hex_digit(char c) noexcept { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool is_scheme_character(char c) noexcept { return is_letter(c) || is_digit(c) || c == '+' || c == '-' || c == '.'; }

/// The text before `separator` and, where it occurs, the text after it.
struct Partition {
  std::string_view before;
  std::optional<std::string_view> after;
};
Partition partition(std::string_view text, char separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, at), text.substr(at + 1)};
}

/// Leading controls and blanks go, and so do tabs and line breaks anywhere.
std::string cleaned(std::string_view url) {
  const auto first = std::find_if(url.begin(), url.end(), [](char c) { return static_cast<unsigned char>(c) > 0x20; });
  std::string text(first, url.end());
  std::erase_if(text, [](char c) { return c == '\t' || c == '\r' || c == '\n'; });
  return text;
}

void check_address_in_brackets(std::string_view address) {
  if (address.starts_with('v')) {
    const auto [version, rest] = partition(address.substr(1), '.');
    const bool valid = !version.empty() && std::all_of(version.begin(), version.end(), is_hex_digit) && rest && !rest->empty();
    if (!valid) throw ValueError("IPvFuture address is invalid");
    return;
  }
  const auto [number, scope] = partition(address, '%');
  const bool scope_valid = !scope || (!scope->empty() && scope->find('%') == std::string_view::npos);
  std::array<unsigned char, 16> bytes{};
  if (scope_valid && ::inet_pton(AF_INET6, std::string(number).c_str(), bytes.data()) == 1) return;
  if (::inet_pton(AF_INET, std::string(address).c_str(), bytes.data()) == 1) throw ValueError("An IPv4 address cannot be in brackets");
  throw ValueError(fmt::format("{} does not appear to be an IPv4 or IPv6 address", to_quoted(address)));
}

/// Characters whose compatibility form holds one of "/?#@:", which would move the borders of the parts.
constexpr char32_t DISGUISED_DELIMITERS[] = {0x2047, 0x2048, 0x2049, 0x2100, 0x2101, 0x2105, 0x2106, 0x2A74, 0xFE13, 0xFE16,
                                             0xFE55, 0xFE56, 0xFE5F, 0xFE6B, 0xFF03, 0xFF0F, 0xFF1A, 0xFF1F, 0xFF20};

void check_network_location(std::string_view location) {
  const bool opens = location.find('[') != std::string_view::npos;
  const bool closes = location.find(']') != std::string_view::npos;
  if (opens != closes) throw ValueError("Invalid IPv6 URL");
  if (opens) check_address_in_brackets(partition(*partition(location, '[').after, ']').before);
  for (std::size_t at = 0; at < location.size();) {
    const CodePoint point = code_point_at(location, at);
    if (std::binary_search(std::begin(DISGUISED_DELIMITERS), std::end(DISGUISED_DELIMITERS), point.value)) {
      throw ValueError(fmt::format("netloc {} contains invalid characters under NFKC normalization", to_quoted(location)));
    }
    at += point.size;
  }
}

/// Host and port as they stand in the network location.
struct HostAndPort {
  std::string_view host;
  std::string_view port;
};
HostAndPort host_and_port(std::string_view location) {
  location.remove_prefix(location.rfind('@') + 1);  // npos + 1 is 0
  const Partition bracketed = partition(location, '[');
  if (!bracketed.after) {
    const Partition parts = partition(location, ':');
    return {parts.before, parts.after.value_or("")};
  }
  const Partition parts = partition(*bracketed.after, ']');
  return {parts.before, partition(parts.after.value_or(""), ':').after.value_or("")};
}

}  // namespace

std::string UrlParts::host() const {
  const std::string_view text = host_and_port(network_location).host;
  const std::size_t zone = std::min(text.find('%'), text.size());
  return ascii_lower(text.substr(0, zone)) + std::string(text.substr(zone));
}

std::optional<int> UrlParts::port() const {
  const std::string_view text = host_and_port(network_location).port;
  if (text.empty()) return std::nullopt;
  if (!std::all_of(text.begin(), text.end(), is_digit)) {
    throw ValueError(fmt::format("Port could not be cast to integer value as {}", to_quoted(text)));
  }
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || number > 65535) throw ValueError("Port out of range 0-65535");
  return number;
}

UrlParts split_url(std::string_view url) {
  const std::string text = cleaned(url);
  std::string_view rest = text;
  UrlParts parts;
  const std::size_t colon = rest.find(':');
  if (colon != std::string_view::npos && colon > 0 && is_letter(rest[0])) {
    const std::string_view scheme = rest.substr(0, colon);
    if (std::all_of(scheme.begin(), scheme.end(), is_scheme_character)) {
      parts.scheme = ascii_lower(scheme);
      rest.remove_prefix(colon + 1);
    }
  }
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const std::string_view location = rest.substr(0, rest.find_first_of("/?#"));
    check_network_location(location);
    parts.network_location = location;
    rest.remove_prefix(location.size());
  }
  const Partition fragment = partition(rest, '#');
  parts.fragment = fragment.after.value_or("");
  const Partition query = partition(fragment.before, '?');
  parts.query = query.after.value_or("");
  parts.path = query.before;
  return parts;
}

bool same_origin(std::string_view url, std::string_view other) {
  const auto origin = [](std::string_view text) {
    UrlParts parts = split_url(text);
    const std::string host = parts.host();
    const int port = parts.port().value_or(parts.scheme == "https" ? 443 : 80);
    return std::tuple(std::move(parts.scheme), host, port);
  };
  try {
    return origin(url) == origin(other);
  } catch (const ValueError&) {
    return false;
  }
}

void require_printable_url(std::string_view url) {
  const auto found =
      std::find_if(url.begin(), url.end(), [](char c) { return c <= ' ' || c == 0x7F || static_cast<unsigned char>(c) > 0x7F; });
  if (found == url.end()) return;
  const auto at = static_cast<std::size_t>(found - url.begin());
  const std::string_view character = url.substr(at, code_point_at(url, at).size);
  throw ValueError("URL can't contain control characters, blanks or non-ASCII characters (found " + to_quoted(character) + ")");
}

}  // namespace brackenfen::sync
