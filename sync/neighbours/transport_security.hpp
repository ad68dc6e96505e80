// Which addresses may be asked at all.
#pragma once

#include <string>
#include <string_view>

namespace brackenfen::sync {

/// "localhost", or an address that is this machine's own. `host` is in lower case and without brackets.
[[nodiscard]] bool names_this_machine(const std::string& host);

class TransportSecurity {
 public:
  virtual ~TransportSecurity() = default;
  /// Throws ValueError, saying why, where `url` must not carry a bearer token.
  virtual void validate_bearer_transport_url(std::string_view url) const = 0;

  /// https to any host, http to this machine only (localhost, 127.0.0.0/8, ::1), no user information.
  static const TransportSecurity& builtin();
};

}  // namespace brackenfen::sync
