#include "sync/transport/http.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/base/version.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/request_environment.hpp"
#include "sync/transport/retry.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync {

static_assert(std::string_view(SYNC_USER_AGENT).substr(std::string_view("brackenfen-sync/").size()) == LIBRARY_VERSION);

namespace {

/// Timeouts travel in single precision.
float in_single_precision(double seconds) {
  constexpr double LARGEST = std::numeric_limits<float>::max();
  return static_cast<float>(seconds > LARGEST ? LARGEST : seconds);
}

HttpRequest public_request(const std::string& url, const RequestStart& start) {
  require_printable_url(url);
  return HttpRequest{url, {{"User-Agent", SYNC_USER_AGENT}}, start.environment, start.connections};
}

void add_range(HttpRequest& request, std::int64_t range_start, std::int64_t range_end) {
  if (range_start <= 0 && range_end < 0) return;
  std::string range = "bytes=" + std::to_string(range_start) + "-";
  if (range_end >= range_start && range_end >= 0) range += std::to_string(range_end);
  request.headers.emplace_back("Range", std::move(range));
}

HttpResult send(const Seams& seams, NeighbourSet& neighbours, HttpRequest request, double (*timeout_seconds)(Environment&),
                ResponseSink* sink) {
  if (!request.environment) request.environment = request_environment(*seams.environment);
  const float timeout = in_single_precision(timeout_seconds(*request.environment));
  return _request_with_sync_retries(seams, neighbours, std::move(request), timeout, sink);
}

class TextSink final : public BodySink {
 public:
  void accept(std::string_view bytes) override { text.append(bytes); }
  std::string text;
};

}  // namespace

RequestStart start_request(Environment& environment, TokenSource& source) {
  RequestStart start;
  environment.together([&] {
    start.token = source.token();
    start.environment = request_environment(environment);
  });
  return start;
}

HttpResult _http_get(const Seams& seams, NeighbourSet& neighbours, const std::string& url, const RequestStart& start,
                     std::int64_t range_start, std::int64_t range_end, ResponseSink* sink) {
  if (range_start == 0 && range_end < 0 && _is_manifest_version_url(url)) return _http_get_manifest_version(seams, neighbours, url, start);
  neighbours.transport_security().validate_bearer_transport_url(url);
  HttpRequest request = authenticated_request(url, start);
  add_range(request, range_start, range_end);
  return send(seams, neighbours, std::move(request), _sync_http_timeout_seconds, sink);
}

HttpResult _http_get_public(const Seams& seams, NeighbourSet& neighbours, const std::string& url, const RequestStart& start,
                            std::int64_t range_start, std::int64_t range_end, ResponseSink* sink) {
  neighbours.transport_security().validate_bearer_transport_url(url);
  HttpRequest request = public_request(url, start);
  add_range(request, range_start, range_end);
  return send(seams, neighbours, std::move(request), _sync_http_timeout_seconds, sink);
}

HttpResult _http_get_manifest_version(const Seams& seams, NeighbourSet& neighbours, const std::string& url, const RequestStart& start) {
  neighbours.transport_security().validate_bearer_transport_url(url);
  return send(seams, neighbours, authenticated_request(url, start), _sync_manifest_version_http_timeout_seconds, nullptr);
}

bool _is_manifest_version_url(std::string_view url) { return rstrip_char(url, '/').ends_with("/data/manifest/version"); }

HttpRequest authenticated_request(const std::string& url, const RequestStart& start) {
  const std::string& token = start.token;
  if (!header_value_bytes(token) || token.find(' ') != std::string::npos) throw ValueError("the token holds a character that HTTP forbids");
  remember_secret(token);
  HttpRequest request = public_request(url, start);
  request.headers.emplace(request.headers.begin(), "Authorization", "Bearer " + token);
  return request;
}

std::unique_ptr<HttpResponse> _open_request(const Seams& seams, NeighbourSet& neighbours, const HttpRequest& request,
                                            float timeout_seconds) {
  return seams.http->open(request, static_cast<double>(timeout_seconds), neighbours.transport_security());
}

Headers _response_headers(const HttpResponse& response) {
  Headers headers;
  headers.reserve(response.headers().size());
  ViewMap<std::size_t> positions;  // a hostile server may send tens of thousands
  for (const auto& header : response.headers()) {
    const auto [known, is_new] = positions.try_emplace(header.first, headers.size());
    if (is_new) {
      headers.push_back(header);
    } else {
      headers[known->second].second = header.second;
    }
  }
  return headers;
}

std::string _read_response_body(HttpResponse& response, std::optional<double> timeout_seconds, std::uint64_t limit) {
  TextSink body;
  response.read_body(body, timeout_seconds, limit);
  return std::move(body.text);
}

std::string _read_http_error_body(HttpResponse& response, std::optional<double> timeout_seconds) {
  try {
    return _read_response_body(response, timeout_seconds, MAX_ERROR_BODY_BYTES);
  } catch (const Error&) {
    return {};
  }
}

Document _parse_sync_error_body(std::string_view body) {
  if (body.empty()) return {};
  try {
    const Value parsed = parse_json(body);
    const Document* const document = parsed.if_document();
    return document != nullptr ? *document : Document();
  } catch (const Error&) {
    return {};
  }
}

bool _should_retry_http_status(const Value& status) {
  const std::optional<Value> code = to_integer_or_absent(status);
  return code && std::any_of(std::begin(TRANSIENT_HTTP_STATUSES), std::end(TRANSIENT_HTTP_STATUSES),
                             [&](int transient) { return *code == Value(transient); });
}

void _raise_download_http_status(const Auth& auth, std::string_view file_path, const Value& status) {
  const Value code = to_integer_or_absent(status).value_or(Value(-1));
  const std::string file(file_path);
  const std::string shown = to_text(status);
  if (code == Value(401)) throw auth.auth_error("Authentication failed while downloading " + file + ": HTTP " + shown);
  std::string text = "Download failed for " + file + ": HTTP " + shown;
  if (_should_retry_http_status(status))
    throw Error(error_class::SyncError, std::move(text), Document{{"file_path", file_path}, {"status", status}});
  throw PermanentDownloadError(std::move(text), file_path, status);
}

}  // namespace brackenfen::sync
