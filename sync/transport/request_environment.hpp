// What one request goes by of the environment: its settings, the way to the server, whom to trust.
#pragma once

#include <memory>
#include <string>

#include "sync/base/environment.hpp"
#include "sync/base/text/text.hpp"

namespace brackenfen::sync {

/// All that a request reads, as it stands now: one reading, since the host may have to be waited for.
[[nodiscard]] std::shared_ptr<Environment> request_environment(Environment& environment);

/// libcurl would read these variables itself, at a moment of its own.
struct ProxyChoice {
  std::string proxy;         ///< empty for none
  std::string exempt_hosts;  ///< as no_proxy has them

  /// The proxy is spoken to by TLS.
  [[nodiscard]] bool is_encrypted() const { return ascii_lower(proxy).starts_with("https://"); }
};

/// By curl's rules, an empty variable counting as unset: {scheme}_proxy before all_proxy, each in small letters before
/// capitals (but never HTTP_PROXY, which a web server sets from a header of its client).
///
/// Plain http goes to this machine alone, and its token in clear: no proxy on another machine is chosen for it.
[[nodiscard]] ProxyChoice proxy_for(Environment& environment, const std::string& url, bool is_encrypted);

}  // namespace brackenfen::sync
