#include <memory>
#include <optional>

#include "sync/base/log.hpp"
#include "sync/transport/curl_transfer.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/http_client.hpp"
#include "sync/transport/redirects.hpp"
#include "sync/transport/request_environment.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync {
namespace {

/// Of one thread. Handles are taken when the first request keeps its connection, and anew when the certificates change.
class CurlConnections final : public HttpConnections {
 public:
  [[nodiscard]] CurlLease& lease(const std::string& certificate_directory) {
    if (!lease_ || lease_->certificate_directory() != certificate_directory) {
      lease_.emplace(CurlLease::Connections::Keep, certificate_directory);
    }
    return *lease_;
  }

 private:
  std::optional<CurlLease> lease_;
};

class CurlHttpClient final : public HttpClient {
 public:
  std::unique_ptr<HttpConnections> connections() override { return std::make_unique<CurlConnections>(); }

  std::unique_ptr<HttpResponse> open(const HttpRequest& request, double timeout_seconds, const TransportSecurity& may_follow) override {
    RequestRoute route(request);
    const std::shared_ptr<Environment> environment = request.environment ? request.environment : request_environment(Environment::real());
    auto* const connections = dynamic_cast<CurlConnections*>(request.connections);
    CurlLease* const kept = connections != nullptr && reuses_http_connections(*environment)
                                ? &connections->lease(certificate_directory(*environment))
                                : nullptr;
    for (;;) {
      auto transfer = std::make_unique<CurlTransfer>(route, *environment, timeout_seconds, kept);
      transfer->wait_for_headers();
      if (transfer->status() == 401 && !route.origin_without_token().empty())  // another token would not help
        log_warning("HTTP 401 after a redirect to %s, where the token does not go", route.origin_without_token());
      if (!is_redirect_status(transfer->status())) return transfer;
      const std::optional<std::string_view> location = header_value(transfer->headers(), "Location");
      if (!location || location->empty()) return transfer;
      route.follow(*location, may_follow);
    }
  }
};

}  // namespace

HttpClient& HttpClient::real() {
  static HttpClient& client = *new CurlHttpClient;
  return client;
}

void HttpClient::set_up_real() noexcept { set_up_curl(); }

}  // namespace brackenfen::sync
