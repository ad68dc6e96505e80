// The HTTP client, as a seam: opening a request and reading its body under a deadline.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sync/base/environment.hpp"

namespace brackenfen::sync {

/// Header names and values in the order of the message, names as the sender spelled them.
using Headers = std::vector<std::pair<std::string, std::string>>;

/// Connections that are kept from one request to the next: see HttpClient::connections. One thread, one response at a
/// time. Destroying it closes them.
class HttpConnections {
 public:
  virtual ~HttpConnections() = default;
};

/// A GET. Nothing else is ever sent.
struct HttpRequest {
  std::string url;
  Headers headers;
  std::shared_ptr<Environment> environment = nullptr;  ///< what it goes by; nullptr: as it stands when the request is opened
  HttpConnections* connections = nullptr;              ///< made use of where the environment says so; nullptr: none is kept
};

/// Takes the bytes of one body as they arrive.
class BodySink {
 public:
  virtual ~BodySink() = default;
  /// An error thrown here ends the read and leaves it.
  virtual void accept(std::string_view bytes) = 0;
};

/// A response whose headers have arrived. One thread; destroying it closes the connection, unless that is kept and the
/// body was read to its end.
class HttpResponse {
 public:
  virtual ~HttpResponse() = default;
  [[nodiscard]] virtual int status() const = 0;
  [[nodiscard]] virtual const Headers& headers() const = 0;
  /// Feeds the body to `sink` in pieces, none larger than _sync_http_response_read_bytes() gives (1 KiB at
  /// least), until it ends or `limit` bytes have been taken; what lies beyond is not read. A connection that
  /// the peer ends early ends the body: short, no error; but of a 2xx that brought none, or any other: a failure. Throws TimeoutError
  /// "response body read exceeded sync HTTP timeout" once `timeout_seconds` (absent or not positive: none) have passed since the call, and
  /// a network failure (see HttpClient) otherwise.
  virtual void read_body(BodySink& sink, std::optional<double> timeout_seconds,
                         std::uint64_t limit = std::numeric_limits<std::uint64_t>::max()) = 0;
};

/// Any thread, several at once. Each open() is a new connection, unless one to that origin was kept; name look-ups and TLS
/// sessions are shared.
///
/// Network failures are Errors whose class tells what happened: TimeoutError, ConnectionRefusedError,
/// ConnectionResetError, BrokenPipeError, SSLError, SSLCertVerificationError, URLError (name look-up, proxy,
/// malformed answers), RedirectRefusedError, OSError for the rest. All of them derive from OSError. No text holds a header value.
class HttpClient {
 public:
  virtual ~HttpClient() = default;
  /// Sends the request and waits for the headers. Redirects are followed at most 10 deep, each target asked
  /// of `may_follow`, never from https to http, and Authorization stays with the origin it was meant for.
  /// `timeout_seconds` bounds connecting to each of the server's addresses and then the wait for the headers, each on its own and
  /// anew for each redirect; a name's look-up has 30 s at least; not positive: none. Throws ValueError, before anything is sent, for
  /// a URL or header with characters that HTTP forbids, and network failures.
  [[nodiscard]] virtual std::unique_ptr<HttpResponse> open(const HttpRequest& request, double timeout_seconds,
                                                           const class TransportSecurity& may_follow) = 0;

  /// For requests to keep their connections in. A kept connection that its server has closed is replaced by a new one. Null
  /// for a client that keeps none.
  [[nodiscard]] virtual std::unique_ptr<HttpConnections> connections() { return nullptr; }

  /// libcurl. One instance per process, never destroyed.
  static HttpClient& real();
  /// Sets libcurl, the TLS library and the name look-up up, which otherwise the first request does. They read variables
  /// and files of the system in doing so. What fails, fails the first request.
  static void set_up_real() noexcept;
};

}  // namespace brackenfen::sync
