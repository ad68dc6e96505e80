// A loopback HTTP server inside the test. What it answers is data; what it was asked is logged.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "sync/base/files/descriptor.hpp"
#include "sync/transport/http_client.hpp"

namespace brackenfen::sync {

struct Reply {
  int status = 200;
  Headers headers = {};  ///< Content-Length is added unless framing is given here
  std::string body = {};
  std::optional<std::size_t> cut_after = {};  ///< bytes of the body after which the connection ends
  bool reset = false;                         ///< the connection ends with RST instead of FIN
  bool stall = false;                         ///< after the body (or its cut) nothing happens any more
  bool renews_keys = false;                   ///< of TLS, from then on without end
  bool keep = false;                          ///< the connection serves another request
  std::chrono::milliseconds delay{0};         ///< before the first byte
};

struct LoggedRequest {
  std::string path;
  Headers headers;
  std::size_t connection = 0;  ///< counted from 0

  [[nodiscard]] std::optional<std::string> header(std::string_view name) const;
};

/// Every connection has a thread of its own and carries one request, unless it is kept. Destroying the server ends them all.
class ScriptedServer {
 public:
  enum class Scheme { Http, Https };  ///< Https with a certificate of its own for "localhost" and 127.0.0.1

  explicit ScriptedServer(Scheme scheme = Scheme::Http);
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;
  ~ScriptedServer();

  /// "http://127.0.0.1:port" and `path`.
  [[nodiscard]] std::string url(std::string_view path = "") const;
  [[nodiscard]] const std::string& certificate_pem() const noexcept { return certificate_pem_; }

  /// The replies to `path`, one after the other; the last one stays. Paths without any get 404. Takes the place of a file.
  void script(const std::string& path, std::vector<Reply> replies);
  /// Answers `path` with `content`, whole or by range, in the place of a script.
  void serve_file(const std::string& path, std::string content);

  [[nodiscard]] std::vector<LoggedRequest> requests() const;
  [[nodiscard]] std::vector<LoggedRequest> requests(std::string_view path) const;

 private:
  class Connection;

  void set_up_tls();
  void accept_connections();
  /// True where the connection is to serve another request.
  bool serve(Connection& connection, std::size_t number);
  [[nodiscard]] Reply reply_to(const LoggedRequest& request);
  void send_reply(Connection& connection, const Reply& reply);

  Scheme scheme_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> tls_{nullptr, &SSL_CTX_free};
  std::string certificate_pem_;
  Descriptor listener_;
  int port_ = 0;
  std::atomic<bool> stopping_{false};

  mutable std::mutex mutex_;
  std::map<std::string, std::deque<Reply>> scripts_;
  std::map<std::string, std::string> files_;
  std::vector<LoggedRequest> requests_;

  std::vector<std::thread> connections_;  // touched by the accepting thread, then by the destructor
  std::thread acceptor_;
};

}  // namespace brackenfen::sync
