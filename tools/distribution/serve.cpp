#include "tools/distribution/serve.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/values/json.hpp"
#include "tools/distribution/body.hpp"
#include "tools/distribution/range.hpp"
#include "tools/distribution/resource.hpp"
#include "tools/distribution/say.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::size_t BENT_BLOCK_BYTES = 64 * 1024;

struct DestroyResponse {
  void operator()(MHD_Response* response) const noexcept { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, DestroyResponse>;

class Server {
 public:
  explicit Server(const ServeOptions& options) : options_(options), tree_(options.tree), faults_(options.faults, options.fault_file) {
    if (!options.log_file.empty()) log_ = open_file(options.log_file, O_WRONLY | O_CREAT | O_APPEND);
    resolve_address();
  }

  void run();

 private:
  struct StopDaemon {
    void operator()(MHD_Daemon* daemon) const noexcept { MHD_stop_daemon(daemon); }
  };

  void resolve_address();
  void open_port();
  void close_port();

  static MHD_Result on_request(void* self, MHD_Connection* connection, const char* path, const char* method, const char* version,
                               const char* upload, std::size_t* upload_size, void** seen);
  MHD_Result answer(MHD_Connection* connection, std::string_view path, std::string_view method);
  MHD_Result answer_resource(MHD_Connection* connection, std::string_view path, const std::shared_ptr<const Fault>& fault,
                             Resource resource);
  MHD_Result answer_error(MHD_Connection* connection, std::string_view path, const Fault* fault, unsigned status, std::string_view error,
                          const std::string& reason, const char* header = nullptr, const char* header_value = nullptr);
  void log_answer(MHD_Connection* connection, std::string_view path, const Fault* fault, unsigned status);

  [[nodiscard]] bool is_authorised(MHD_Connection* connection) const;

  const ServeOptions& options_;
  TreeReader tree_;
  Descriptor log_;
  FaultTable faults_;
  StopSignal stop_;
  sockaddr_storage address_{};
  std::uint16_t port_ = 0;
  std::unique_ptr<MHD_Daemon, StopDaemon> daemon_;
};

std::optional<std::string_view> request_header(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? std::nullopt : std::optional<std::string_view>(value);
}

/// Percent escapes are decoded, but for one that would cut the path short.
std::size_t unescape(void*, MHD_Connection*, char* text) {
  return std::strstr(text, "%00") == nullptr ? MHD_http_unescape(text) : std::strlen(text);
}

bool Server::is_authorised(MHD_Connection* connection) const {
  return options_.token.empty() || request_header(connection, MHD_HTTP_HEADER_AUTHORIZATION) == "Bearer " + options_.token;
}

// --- answering -------------------------------------------------------------------------------------------------------

MHD_Result Server::on_request(void* self, MHD_Connection* connection, const char* path, const char* method, const char*, const char*,
                              std::size_t* upload_size, void** seen) {
  static char marker;
  if (*seen == nullptr) {  // headers only so far; the answer comes with the second call
    *seen = &marker;
    return MHD_YES;
  }
  if (*upload_size != 0) {
    *upload_size = 0;
    return MHD_YES;
  }
  return static_cast<Server*>(self)->answer(connection, path, method);
}

MHD_Result Server::answer(MHD_Connection* connection, std::string_view path, std::string_view method) {
  const std::shared_ptr<const Fault> fault = faults_.decide(path);
  if (fault) {
    if (fault->delay_seconds > 0 && !stop_.sleep(fault->delay_seconds)) return MHD_NO;
    if (fault->reset && !fault->drop_after_bytes) {
      reset_connection(MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd, stop_);
      log_answer(connection, path, fault.get(), 0);
      return MHD_NO;
    }
    if (fault->status) return answer_error(connection, path, fault.get(), *fault->status, "injected_fault", fault->text);
  }
  if (method != "GET" && method != "HEAD") {
    return answer_error(connection, path, nullptr, 405, "method_not_allowed", fmt::format("{} is not served", method), "Allow",
                        "GET, HEAD");
  }
  if (!is_authorised(connection)) {
    return answer_error(connection, path, nullptr, 401, "unauthorized", "a valid bearer token is required", "WWW-Authenticate", "Bearer");
  }
  std::optional<Resource> resource = tree_.find(path);
  if (!resource) return answer_error(connection, path, nullptr, 404, "not_found", fmt::format("{} is not in this tree", path));
  return answer_resource(connection, path, fault, std::move(*resource));
}

MHD_Result Server::answer_resource(MHD_Connection* connection, std::string_view path, const std::shared_ptr<const Fault>& fault,
                                   Resource resource) {
  std::optional<std::string_view> header = request_header(connection, MHD_HTTP_HEADER_RANGE);
  // No validators are sent, so a conditional range never holds.
  if ((fault && fault->ignore_range) || request_header(connection, MHD_HTTP_HEADER_IF_RANGE)) header.reset();
  const auto [verdict, range] = answer_range(header, resource.size_bytes);
  if (verdict == RangeVerdict::Unsatisfiable) {
    const std::string size = fmt::format("bytes */{}", resource.size_bytes);
    return answer_error(connection, path, fault.get(), 416, "range_not_satisfiable", fmt::format("{} is not in the file", *header),
                        MHD_HTTP_HEADER_CONTENT_RANGE, size.c_str());
  }
  const auto length = static_cast<std::uint64_t>(range.length);
  Response response;
  if (fault && fault->bends_body()) {
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    auto body = std::make_unique<BentBody>(std::move(resource.file), range, fault, socket, stop_);
    response.reset(MHD_create_response_from_callback(
        length, BENT_BLOCK_BYTES,
        [](void* self, std::uint64_t position, char* buffer, std::size_t size) {
          const ssize_t got = static_cast<BentBody*>(self)->read(static_cast<std::int64_t>(position), buffer, size);
          return got > 0 ? got : MHD_CONTENT_READER_END_WITH_ERROR;
        },
        body.get(), [](void* self) { delete static_cast<BentBody*>(self); }));
    if (response) static_cast<void>(body.release());
  } else {
    const int handed_over = ::fcntl(resource.file.get(), F_DUPFD_CLOEXEC, 0);
    if (handed_over < 0) return MHD_NO;
    response.reset(MHD_create_response_from_fd_at_offset64(length, handed_over, static_cast<std::uint64_t>(range.first)));
    if (!response) ::close(handed_over);
  }
  if (!response) return MHD_NO;
  const unsigned status = verdict == RangeVerdict::Partial ? 206 : 200;
  MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, resource.content_type);
  MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
  if (resource.era) MHD_add_response_header(response.get(), "X-Era-Id", std::to_string(*resource.era).c_str());
  if (status == 206) {
    const std::string span = fmt::format("bytes {}-{}/{}", range.first, range.first + range.length - 1, resource.size_bytes);
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_RANGE, span.c_str());
  }
  log_answer(connection, path, fault.get(), status);
  return MHD_queue_response(connection, status, response.get());
}

MHD_Result Server::answer_error(MHD_Connection* connection, std::string_view path, const Fault* fault, unsigned status,
                                std::string_view error, const std::string& reason, const char* header, const char* header_value) {
  Document words{{"error", error}, {"reason", reason}};
  if (fault != nullptr) {
    for (const Member& word : fault->words) words = words.with(word.key, word.value);
  }
  std::string body = write_json(words, JsonForm::InsertionOrder);
  const Response response(MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY));
  if (!response) return MHD_NO;
  MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
  if (header != nullptr) MHD_add_response_header(response.get(), header, header_value);
  log_answer(connection, path, fault, status);
  return MHD_queue_response(connection, status, response.get());
}

/// "STATUS PATH RANGE FAULT", "-" for what there is not and 0 for an answer that was never given.
void Server::log_answer(MHD_Connection* connection, std::string_view path, const Fault* fault, unsigned status) {
  if (!log_) return;
  const std::string_view range = request_header(connection, MHD_HTTP_HEADER_RANGE).value_or("-");
  const std::string line = fmt::format("{} {} {} {}\n", status, path, range, fault == nullptr ? std::string_view("-") : fault->text);
  // One write to a file opened for appending: lines of several threads do not mix.
  static_cast<void>(!::write(log_.get(), line.data(), line.size()));
}

// --- the port --------------------------------------------------------------------------------------------------------

void Server::resolve_address() {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | (options_.host == "localhost" ? 0 : AI_NUMERICHOST);
  hints.ai_family = options_.host == "localhost" ? AF_INET : AF_UNSPEC;
  addrinfo* found = nullptr;
  const int failure = ::getaddrinfo(options_.host.c_str(), std::to_string(options_.port).c_str(), &hints, &found);
  if (failure != 0) throw RuntimeError(fmt::format("{} is not an address to serve at: {}", options_.host, ::gai_strerror(failure)));
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
  std::memcpy(&address_, found->ai_addr, found->ai_addrlen);
  port_ = options_.port;
}

void Server::open_port() {
  stop_.clear();
  const bool is_ipv6 = address_.ss_family == AF_INET6;
  const in_port_t port = htons(port_);
  if (is_ipv6) {
    reinterpret_cast<sockaddr_in6*>(&address_)->sin6_port = port;
  } else {
    reinterpret_cast<sockaddr_in*>(&address_)->sin_port = port;
  }
  unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL;
  if (is_ipv6) flags |= MHD_USE_IPv6;
  daemon_.reset(MHD_start_daemon(flags, port_, nullptr, nullptr, &Server::on_request, this, MHD_OPTION_SOCK_ADDR,
                                 reinterpret_cast<const sockaddr*>(&address_), MHD_OPTION_UNESCAPE_CALLBACK, &unescape,
                                 static_cast<void*>(nullptr), MHD_OPTION_END));
  if (!daemon_) throw RuntimeError(fmt::format("cannot serve at {}:{}: {}", options_.host, port_, std::strerror(errno)));
  port_ = MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_BIND_PORT)->port;
}

void Server::close_port() {
  stop_.raise();
  daemon_.reset();
}

void Server::run() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  open_port();
  const bool is_ipv6 = address_.ss_family == AF_INET6;
  say(stdout, fmt::format("serving {} at http://{}:{}", options_.tree, is_ipv6 ? "[" + options_.host + "]" : options_.host, port_));
  constexpr timespec look_around{0, 50'000'000};
  for (;;) {
    const int signal = ::sigtimedwait(&signals, nullptr, &look_around);
    if (signal == SIGINT || signal == SIGTERM) break;
    const bool closed = faults_.port_is_closed();
    if (closed && daemon_) close_port();
    if (!closed && !daemon_) open_port();
  }
  close_port();
}

}  // namespace

void serve(const ServeOptions& options) { Server(options).run(); }

}  // namespace brackenfen::sync::distribution
