// The GETs of the library: headers, ranges, and how statuses and error bodies are read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"
#include "sync/transport/http_client.hpp"
#include "sync/transport/seams.hpp"
#include "sync/transport/token_source.hpp"

namespace brackenfen::sync {

inline constexpr const char* SYNC_USER_AGENT = "brackenfen-sync/0.0.3";
inline constexpr int TRANSIENT_HTTP_STATUSES[] = {408, 425, 429, 500, 502, 503, 504};

/// A document is read up to this size; what lies beyond is not read and the parser decides.
inline constexpr std::uint64_t MAX_DOCUMENT_BYTES = 256ULL << 20;
inline constexpr std::uint64_t MAX_ERROR_BODY_BYTES = 1ULL << 20;
/// How far beyond the range or size asked for the body of a data file is read.
inline constexpr std::uint64_t BODY_SLACK_BYTES = 64ULL << 10;

struct HttpResult {
  int status = 0;
  Headers headers;
  std::string body;  ///< empty where a ResponseSink took it
};

/// Takes the body of a 200 or 206 instead of HttpResult::body.
class ResponseSink : public BodySink {
 public:
  /// A response of this status is about to be read. Called anew for each attempt. Returns how many bytes to read
  /// at most.
  [[nodiscard]] virtual std::uint64_t begin(int status) = 0;
  /// The response broke off after begin(): what it brought must be forgotten. Not called for what the sink threw.
  virtual void roll_back() = 0;
};

/// What a request begins with. Where the environment is absent, the request reads it when it needs it.
struct RequestStart {
  std::string token;
  std::shared_ptr<Environment> environment = nullptr;
  HttpConnections* connections = nullptr;  ///< see HttpRequest
};
/// A token and the environment, in one visit to the host. Throws what the source throws.
[[nodiscard]] RequestStart start_request(Environment& environment, TokenSource& source);

/// GET with the bearer token. `range_end` below 0 means open-ended; a range with its end below its start
/// degrades to the open-ended form. The version URL without a range goes to _http_get_manifest_version.
/// Throws ValueError for a URL or token that must not be sent, before anything is sent, and without the
/// token in its text; else what _request_with_sync_retries throws.
[[nodiscard]] HttpResult _http_get(const Seams& seams, NeighbourSet& neighbours, const std::string& url, const RequestStart& start,
                                   std::int64_t range_start = 0, std::int64_t range_end = -1, ResponseSink* sink = nullptr);
/// The same without credentials. The URL must satisfy the same transport rule.
[[nodiscard]] HttpResult _http_get_public(const Seams& seams, NeighbourSet& neighbours, const std::string& url,
                                          const RequestStart& start = {}, std::int64_t range_start = 0, std::int64_t range_end = -1,
                                          ResponseSink* sink = nullptr);
/// The version poll, under its own shorter timeout.
[[nodiscard]] HttpResult _http_get_manifest_version(const Seams& seams, NeighbourSet& neighbours, const std::string& url,
                                                    const RequestStart& start);

/// Whether the URL, without trailing slashes, ends in "/data/manifest/version".
[[nodiscard]] bool _is_manifest_version_url(std::string_view url);

[[nodiscard]] HttpRequest authenticated_request(const std::string& url, const RequestStart& start);
[[nodiscard]] std::unique_ptr<HttpResponse> _open_request(const Seams& seams, NeighbourSet& neighbours, const HttpRequest& request,
                                                          float timeout_seconds);
/// Header pairs as a map; of a repeated name the last value stays.
[[nodiscard]] Headers _response_headers(const HttpResponse& response);
/// The whole body under a deadline, up to `limit` bytes.
[[nodiscard]] std::string _read_response_body(HttpResponse& response, std::optional<double> timeout_seconds,
                                              std::uint64_t limit = MAX_DOCUMENT_BYTES);
/// The body of an error response, up to MAX_ERROR_BODY_BYTES; empty where reading it fails.
[[nodiscard]] std::string _read_http_error_body(HttpResponse& response, std::optional<double> timeout_seconds);
/// The error body as a document; empty where it is none.
[[nodiscard]] Document _parse_sync_error_body(std::string_view body);
/// Whether `status`, converted to an integer, is transient. False where it does not convert.
[[nodiscard]] bool _should_retry_http_status(const Value& status);
/// Throws AuthError for 401, SyncError for a transient status, PermanentDownloadError otherwise.
[[noreturn]] void _raise_download_http_status(const Auth& auth, std::string_view file_path, const Value& status);

}  // namespace brackenfen::sync
