#include "sync/transport/request_environment.hpp"

#include <initializer_list>

#include "sync/base/error.hpp"
#include "sync/base/text/url.hpp"
#include "sync/neighbours/transport_security.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* VARIABLES[] = {
    "BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS",
    "BRACKENFEN_SYNC_HTTP_TIMEOUT",
    "BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS",
    "BRACKENFEN_SYNC_MANIFEST_VERSION_TIMEOUT_SECONDS",
    "BRACKENFEN_SYNC_HTTP_RESPONSE_READ_BYTES",
    "BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS",
    "SSL_CERT_FILE",
    "SSL_CERT_DIR",
    "http_proxy",
    "https_proxy",
    "HTTPS_PROXY",
    "all_proxy",
    "ALL_PROXY",
    "no_proxy",
    "NO_PROXY",
};

std::string first_set(Environment& environment, std::initializer_list<const char*> names) {
  for (const char* const name : names) {
    if (auto value = environment.get(name); value && !value->empty()) return *std::move(value);
  }
  return {};
}

/// Whether `proxy` stands on another machine; true also where that cannot be told.
bool is_elsewhere(const std::string& proxy) {
  try {
    return !names_this_machine(split_url(proxy.find("://") == std::string::npos ? "//" + proxy : proxy).host());
  } catch (const ValueError&) {
    return true;
  }
}

}  // namespace

std::shared_ptr<Environment> request_environment(Environment& environment) {
  return std::make_shared<EnvironmentCopy>(environment, VARIABLES);
}

ProxyChoice proxy_for(Environment& environment, const std::string& url, bool is_encrypted) {
  ProxyChoice choice;
  choice.proxy = is_encrypted ? first_set(environment, {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
                              : first_set(environment, {"http_proxy", "all_proxy", "ALL_PROXY"});
  if (choice.proxy.empty()) return choice;
  if (!is_encrypted && names_this_machine(split_url(url).host()) && is_elsewhere(choice.proxy)) return {};
  choice.exempt_hosts = first_set(environment, {"no_proxy", "NO_PROXY"});
  return choice;
}

}  // namespace brackenfen::sync
