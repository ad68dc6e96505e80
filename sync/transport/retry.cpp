#include "sync/transport/retry.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "sync/base/error.hpp"
#include "sync/transport/unavailable.hpp"

namespace brackenfen::sync {
namespace {

/// Passes a body on to the caller's sink and remembers whether it was the sink that failed: a full disk is
/// an OSError like a network failure, but no outage of the server.
class WatchedSink final : public BodySink {
 public:
  explicit WatchedSink(ResponseSink& sink) : sink_(sink) {}

  [[nodiscard]] std::uint64_t begin(int status) {
    inside_ = true;
    const std::uint64_t limit = sink_.begin(status);
    inside_ = false;
    return limit;
  }
  void accept(std::string_view bytes) override {
    inside_ = true;
    sink_.accept(bytes);
    inside_ = false;
  }
  /// An error left the sink.
  [[nodiscard]] bool failed() const noexcept { return inside_; }

 private:
  ResponseSink& sink_;
  bool inside_ = false;
};

bool is_success(int status) { return status >= 200 && status < 300; }

/// Stands in for the server's own words where there are none.
Document network_failure_details(const std::string& reason) {
  return {{"error_code", reason}, {"dependency", "network"}, {"retryable", true}, {"recovery", "retry_with_backoff"}, {"reason", reason}};
}

/// Why an attempt may be repeated.
struct Failure {
  std::optional<int> status;  ///< absent for a network failure
  std::string reason;
  Document details;
};

/// One attempt: a response to hand back, or a failure that waiting may heal. Anything else is thrown.
std::variant<HttpResult, Failure> attempt(const Seams& seams, NeighbourSet& neighbours, const HttpRequest& request, float timeout_seconds,
                                          ResponseSink* sink) {
  const auto timeout = static_cast<double>(timeout_seconds);
  std::optional<WatchedSink> watched;
  try {
    const std::unique_ptr<HttpResponse> response = _open_request(seams, neighbours, request, timeout_seconds);
    HttpResult result{response->status(), _response_headers(*response), {}};
    if (sink != nullptr && (result.status == 200 || result.status == 206)) {
      const std::uint64_t limit = watched.emplace(*sink).begin(result.status);
      response->read_body(*watched, timeout, limit);
    } else if (sink == nullptr && is_success(result.status)) {
      result.body = _read_response_body(*response, timeout);
    } else {
      result.body = _read_http_error_body(*response, timeout);
    }
    if (!_should_retry_http_status(result.status)) return result;
    return Failure{result.status, "http_" + std::to_string(result.status), _parse_sync_error_body(result.body)};
  } catch (const Error& error) {
    if (!error.is(error_class::OSError) || (watched && watched->failed())) throw;
    std::string reason(error.error_class().name());
    Document details = network_failure_details(reason);
    return Failure{std::nullopt, std::move(reason), std::move(details)};
  }
}

}  // namespace

HttpResult _request_with_sync_retries(const Seams& seams, NeighbourSet& neighbours, const HttpRequest& request, float timeout_seconds,
                                      ResponseSink* sink) {
  std::variant<HttpResult, Failure> outcome = attempt(seams, neighbours, request, timeout_seconds, sink);
  if (auto* const result = std::get_if<HttpResult>(&outcome)) return std::move(*result);
  const Failure& failure = std::get<Failure>(outcome);
  const List statuses = failure.status ? List{*failure.status} : List();
  const List failures = failure.status ? List() : List{failure.reason};
  throw _sync_unavailable_from(request.url, 1, statuses, failures, failure.details);
}

}  // namespace brackenfen::sync
