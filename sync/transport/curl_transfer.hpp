// One GET: from the request line to the last byte of the body.
#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/transport/curl_handles.hpp"
#include "sync/transport/http_client.hpp"

namespace brackenfen::sync {

class RequestRoute;
struct ProxyChoice;

/// Where authorities beside those of the certificate file are looked up, each when it is needed; empty for none.
[[nodiscard]] std::string certificate_directory(Environment& environment);

/// A point in time after which waiting ends, or none. nan, values not above zero and values beyond decades
/// stand for none.
class Deadline {
 public:
  explicit Deadline(std::optional<double> seconds);
  [[nodiscard]] bool passed() const;
  /// Milliseconds to wait for the network before looking around again: at most INTERRUPT_SLICE.
  [[nodiscard]] int slice_milliseconds() const;

 private:
  static constexpr auto NEVER = std::chrono::steady_clock::time_point::max();
  std::chrono::steady_clock::time_point end_ = NEVER;
};

/// The transfer rests between the end of the headers and read_body(): curl keeps what had arrived by then
/// (one receive buffer at most), and everything else waits in the socket.
class CurlTransfer final : public HttpResponse {
 public:
  /// `kept` outlives the transfer, has no other one meanwhile, and keeps the connection; null: the transfer closes it.
  CurlTransfer(const RequestRoute& route, Environment& environment, double timeout_seconds, CurlLease* kept);
  CurlTransfer(const CurlTransfer&) = delete;
  CurlTransfer& operator=(const CurlTransfer&) = delete;
  ~CurlTransfer() override;

  /// Looks the name up, connects, sends the request and takes the headers. Connecting, to each of the name's addresses, and waiting for
  /// the whole of the headers are bounded by the timeout, each on its own; the look-up by no less than 30 s.
  void wait_for_headers();

  [[nodiscard]] int status() const override { return status_; }
  [[nodiscard]] const Headers& headers() const override { return headers_; }
  void read_body(BodySink& sink, std::optional<double> timeout_seconds, std::uint64_t limit) override;

 private:
  struct FreeList {
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
  };

  /// What holds for every transfer of a handle.
  void set_up_handle();
  /// What is this transfer's own, all of it: the handle may come from another.
  void set_request(const RequestRoute& route, Environment& environment, const ProxyChoice& way);
  void set_certificates(Environment& environment);
  /// Lets curl work once.
  void step();
  void wait_for_network(const Deadline& deadline);
  /// What ended the transfer before its time. Only once result_ is set.
  [[nodiscard]] Error transfer_error() const;

  // Called by curl inside step(). Exceptions are kept in failure_ and end the transfer.
  void take_header_line(std::string_view line);
  void end_of_headers();
  [[nodiscard]] std::size_t take_body(std::string_view bytes);

  static std::size_t on_header(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t on_body(char* bytes, std::size_t size, std::size_t count, void* self);
  static curl_socket_t open_socket(void* self, curlsocktype purpose, curl_sockaddr* address);
  static int on_connected(void* self, char* primary_ip, char* local_ip, int primary_port, int local_port);

  std::optional<CurlLease> own_handles_;
  CurlLease& handles_;
  std::unique_ptr<curl_slist, FreeList> request_headers_;
  std::array<char, CURL_ERROR_SIZE> error_text_{};
  const double timeout_seconds_;

  int status_ = 0;
  Headers headers_;
  std::size_t header_bytes_ = 0;
  int stage_ = 0;  // rises with each socket and once connected: what comes next is waited for anew
  bool headers_done_ = false;

  BodySink* sink_ = nullptr;  // set while read_body runs
  std::uint64_t body_room_ = 0;
  bool body_begun_ = false;

  int socket_error_ = 0;  // errno of the last socket that could not be made
  std::exception_ptr failure_;
  std::optional<CURLcode> result_;  // set once curl is done with the transfer
  bool moved_ = false;              // after the last step there may be more to do at once
  std::chrono::steady_clock::time_point interrupt_checked_;
};

}  // namespace brackenfen::sync
