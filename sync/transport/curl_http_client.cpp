#include <memory>
#include <optional>

#include "sync/transport/curl_transfer.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/http_client.hpp"
#include "sync/transport/redirects.hpp"
#include "sync/transport/request_environment.hpp"

namespace brackenfen::sync {
namespace {

class CurlHttpClient final : public HttpClient {
 public:
  std::unique_ptr<HttpResponse> open(const HttpRequest& request, double timeout_seconds, const TransportSecurity& may_follow) override {
    RequestRoute route(request);
    const std::shared_ptr<Environment> environment = request.environment ? request.environment : request_environment(Environment::real());
    for (;;) {
      auto transfer = std::make_unique<CurlTransfer>(route, *environment, timeout_seconds);
      transfer->wait_for_headers();
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
