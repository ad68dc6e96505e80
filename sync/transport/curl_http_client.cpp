#include <memory>
#include <optional>

#include "sync/transport/curl_transfer.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/http_client.hpp"
#include "sync/transport/redirects.hpp"

namespace brackenfen::sync {
namespace {

class CurlHttpClient final : public HttpClient {
 public:
  std::unique_ptr<HttpResponse> open(const HttpRequest& request, double timeout_seconds, const TransportSecurity& may_follow) override {
    RequestRoute route(request);
    for (;;) {
      auto transfer = std::make_unique<CurlTransfer>(route, timeout_seconds);
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

}  // namespace brackenfen::sync
