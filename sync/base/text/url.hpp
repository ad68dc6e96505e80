// Splitting a URL into its parts, as Python's urllib.parse.urlsplit does.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace brackenfen::sync {

/// The parts as they stand in the text: nothing is decoded, only the scheme is lower-cased.
struct UrlParts {
  std::string scheme;
  std::string network_location;  ///< "user:password@host:port"
  std::string path;
  std::string query;
  std::string fragment;

  [[nodiscard]] bool has_user_information() const { return network_location.find('@') != std::string::npos; }
  /// Host in lower case, without port and without the brackets of an IPv6 address.
  [[nodiscard]] std::string host() const;
  /// Absent where none is given. Throws ValueError where it is not a number from 0 to 65535.
  [[nodiscard]] std::optional<int> port() const;
};

/// Throws ValueError for a text that cannot be split ("Invalid IPv6 URL").
[[nodiscard]] UrlParts split_url(std::string_view url);

/// Whether scheme, host and port are the same; false where one of the two cannot be split.
[[nodiscard]] bool same_origin(std::string_view url, std::string_view other);

/// Throws ValueError where the text holds a control character, a blank or a non-ASCII character: such a
/// URL must never reach a request line. The text names the offending character, never the whole URL.
void require_printable_url(std::string_view url);

}  // namespace brackenfen::sync
