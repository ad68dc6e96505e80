#include "tests/support/scripted_server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "sync/base/text/text.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds SLICE{10};

void require(bool success, const char* what) {
  if (!success) throw std::runtime_error(what);
}

/// The part of `content` that a "bytes=first-last" range asks for.
Reply ranged_reply(const std::string& content, const std::optional<std::string>& range) {
  if (!range) return {.body = content};
  std::size_t first = 0, last = content.size();
  std::sscanf(range->c_str(), "bytes=%zu-%zu", &first, &last);
  last = std::min(last, content.size() - 1);
  const std::string size = std::to_string(content.size());
  if (content.empty() || first > last) return {.status = 416, .headers = {{"Content-Range", "bytes */" + size}}};
  const std::string shown = "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + size;
  return {.status = 206, .headers = {{"Content-Range", shown}}, .body = content.substr(first, last - first + 1)};
}

}  // namespace

std::optional<std::string> LoggedRequest::header(std::string_view name) const {
  for (const auto& [present, value] : headers) {
    if (ascii_lower(present) == ascii_lower(name)) return value;
  }
  return std::nullopt;
}

/// One accepted socket, with or without TLS. Sends fail silently once the peer is gone.
class ScriptedServer::Connection {
 public:
  Connection(Descriptor socket, SSL_CTX* tls, const std::atomic<bool>& stopping)
      : socket_(std::move(socket)), tls_(tls ? SSL_new(tls) : nullptr), stopping_(stopping) {
    const timeval patience{.tv_sec = 0, .tv_usec = 100'000};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { SSL_free(tls_); }  // without TLS's farewell

  [[nodiscard]] bool handshake() {
    if (tls_ == nullptr) return true;
    SSL_set_fd(tls_, socket_.get());
    while (!stopping_) {
      errno = 0;
      if (SSL_accept(tls_) == 1) return true;
      if (errno != EAGAIN && errno != EINTR) return false;
    }
    return false;
  }

  /// The request up to its empty line; empty where the peer went away or does not speak HTTP.
  [[nodiscard]] std::string read_head() {
    std::string head;
    char byte = 0;
    while (!head.ends_with("\r\n\r\n") && !stopping_) {
      const auto count = tls_ != nullptr ? SSL_read(tls_, &byte, 1) : ::recv(socket_.get(), &byte, 1, 0);
      if (count == 1) {
        head += byte;
        if (head.front() != 'G') {
          send("HTTP/1.1 400 Bad Request\r\n\r\n");
          return {};
        }
      } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        return {};
      }
    }
    return head;
  }

  /// False once the peer is gone.
  bool send(std::string_view bytes) {
    while (!bytes.empty() && !stopping_) {
      const auto count = tls_ != nullptr ? SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size()))
                                         : ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count > 0) {
        bytes.remove_prefix(static_cast<std::size_t>(count));
      } else if (errno != EAGAIN && errno != EINTR) {
        return false;
      }
    }
    return bytes.empty();
  }

  /// Waits until `time` has passed, the peer is gone or the server stops. False in the last two cases.
  [[nodiscard]] bool wait(milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
      pollfd peer{.fd = socket_.get(), .events = POLLRDHUP, .revents = 0};
      if (stopping_ || ::poll(&peer, 1, static_cast<int>(std::min(time, SLICE).count())) > 0) return false;
    }
    return true;
  }

  void renew_keys() {
    while (!stopping_ && SSL_key_update(tls_, SSL_KEY_UPDATE_NOT_REQUESTED) == 1 && SSL_do_handshake(tls_) == 1) {
    }
  }

  void reset_on_close() {
    const linger at_once{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  }

 private:
  Descriptor socket_;
  SSL* tls_;
  const std::atomic<bool>& stopping_;
};

ScriptedServer::ScriptedServer(Scheme scheme) : scheme_(scheme), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (scheme == Scheme::Https) set_up_tls();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  require(::bind(listener_.get(), generic, size) == 0 && ::listen(listener_.get(), 64) == 0, "listening on loopback");
  require(::getsockname(listener_.get(), generic, &size) == 0, "the listening port");
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] {
    sigset_t broken_pipe;  // a client that breaks off must not end the tests
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
    accept_connections();
  });
}

ScriptedServer::~ScriptedServer() {
  stopping_ = true;
  acceptor_.join();
  for (std::thread& connection : connections_) connection.join();
}

std::string ScriptedServer::url(std::string_view path) const {
  return (scheme_ == Scheme::Https ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_) + std::string(path);
}

void ScriptedServer::script(const std::string& path, std::vector<Reply> replies) {
  const std::lock_guard lock(mutex_);
  files_.erase(path);
  scripts_[path] = {replies.begin(), replies.end()};
}

void ScriptedServer::serve_file(const std::string& path, std::string content) {
  const std::lock_guard lock(mutex_);
  scripts_.erase(path);
  files_[path] = std::move(content);
}

std::vector<LoggedRequest> ScriptedServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

std::vector<LoggedRequest> ScriptedServer::requests(std::string_view path) const {
  std::vector<LoggedRequest> found = requests();
  std::erase_if(found, [&](const LoggedRequest& request) { return request.path != path; });
  return found;
}

void ScriptedServer::set_up_tls() {
  const TemporaryDirectory made;
  const std::string key = made / "key", certificate = made / "certificate";
  const std::string names = " -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1";
  const std::string kind = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  const std::string command = kind + names + " -keyout " + key + " -out " + certificate + " 2>/dev/null";
  require(std::system(command.c_str()) == 0, "making a certificate");
  certificate_pem_ = made.read("certificate");
  tls_.reset(SSL_CTX_new(TLS_server_method()));
  require(SSL_CTX_use_certificate_file(tls_.get(), certificate.c_str(), SSL_FILETYPE_PEM) == 1, "the certificate");
  require(SSL_CTX_use_PrivateKey_file(tls_.get(), key.c_str(), SSL_FILETYPE_PEM) == 1, "its key");
}

void ScriptedServer::accept_connections() {
  while (!stopping_) {
    pollfd listening{.fd = listener_.get(), .events = POLLIN, .revents = 0};
    if (::poll(&listening, 1, static_cast<int>(SLICE.count())) <= 0) continue;
    const int accepted = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0) continue;
    connections_.emplace_back([this, accepted, number = connections_.size()] {
      Connection connection(Descriptor(accepted), tls_.get(), stopping_);
      if (!connection.handshake()) return;
      while (serve(connection, number)) continue;
    });
  }
}

bool ScriptedServer::serve(Connection& connection, std::size_t number) {
  const std::string head = connection.read_head();
  if (head.empty()) return false;
  LoggedRequest request;
  request.connection = number;
  for (const std::string_view line : split(head, "\r\n")) {
    if (request.path.empty()) {
      request.path = split(line, " ").at(1);
    } else if (const std::size_t colon = line.find(':'); colon != std::string_view::npos) {
      request.headers.emplace_back(line.substr(0, colon), strip(line.substr(colon + 1)));
    }
  }
  const Reply reply = reply_to(request);
  send_reply(connection, reply);
  return reply.keep;
}

Reply ScriptedServer::reply_to(const LoggedRequest& request) {
  const std::lock_guard lock(mutex_);
  requests_.push_back(request);
  if (const auto file = files_.find(request.path); file != files_.end()) return ranged_reply(file->second, request.header("Range"));
  const auto script = scripts_.find(request.path);
  if (script == scripts_.end() || script->second.empty()) return {.status = 404};
  const Reply reply = script->second.front();
  if (script->second.size() > 1) script->second.pop_front();
  return reply;
}

void ScriptedServer::send_reply(Connection& connection, const Reply& reply) {
  if (reply.delay > milliseconds(0) && !connection.wait(reply.delay)) return;
  std::string message = "HTTP/1.1 " + std::to_string(reply.status) + " Status\r\n";
  bool framed = false;
  for (const auto& [name, value] : reply.headers) {
    message += name + ": " + value + "\r\n";
    framed = framed || name == "Content-Length" || name == "Transfer-Encoding";
  }
  if (!framed) message += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
  message += "\r\n" + reply.body.substr(0, reply.cut_after.value_or(reply.body.size()));
  if (!connection.send(message)) return;
  if (reply.renews_keys) connection.renew_keys();
  if (reply.stall) static_cast<void>(connection.wait(std::chrono::hours(1)));
  if (reply.reset) connection.reset_on_close();
}

}  // namespace brackenfen::sync
