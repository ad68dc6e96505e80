// Where a request goes: the address asked for, and each redirect followed by hand so that every target
// passes the transport rule and the token never reaches a stranger.
#pragma once

#include <string>
#include <string_view>

#include "sync/neighbours/transport_security.hpp"
#include "sync/transport/http_client.hpp"

namespace brackenfen::sync {

inline constexpr int MAX_REDIRECTS = 10;

[[nodiscard]] bool is_redirect_status(int status) noexcept;

/// One request on its way. Not shared between threads.
class RequestRoute {
 public:
  /// Throws ValueError for a URL or header that must not be sent.
  explicit RequestRoute(const HttpRequest& request);

  /// The address to ask next, without user information.
  [[nodiscard]] const std::string& url() const noexcept { return url_; }
  /// The headers to ask with. Authorization is gone once a redirect has left the first origin, for good.
  [[nodiscard]] const Headers& headers() const noexcept { return headers_; }
  [[nodiscard]] bool is_encrypted() const noexcept { return is_encrypted_; }
  /// The origin that a redirect led to, and before which Authorization was taken away; empty: there is none.
  [[nodiscard]] const std::string& origin_without_token() const noexcept { return origin_without_token_; }

  /// Goes on to `location`, absolute or relative to url(). Throws RedirectRefusedError, saying why, where the
  /// target is refused; its text holds the target's scheme and host at most.
  void follow(std::string_view location, const TransportSecurity& may_follow);

 private:
  std::string url_;
  bool is_encrypted_ = false;
  Headers headers_;
  std::string origin_without_token_;
  int redirects_ = 0;
};

}  // namespace brackenfen::sync
