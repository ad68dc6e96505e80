// libcurl's state for the whole process: shared name look-ups and TLS sessions, and multi handles kept for reuse.
#pragma once

#include <curl/curl.h>

namespace brackenfen::sync {

namespace detail {
struct CurlProcess;
}

/// What happens once in a process, where it has not yet: see HttpClient::set_up_real.
void set_up_curl() noexcept;

/// An easy handle of its own and a multi handle that drives it, for one transfer on one thread. The multi
/// handle goes back to the process when the lease ends: it keeps the parsed certificate store, and reading
/// that anew costs more than a handshake. No connection is ever kept.
class CurlLease {
 public:
  /// Throws MemoryError.
  CurlLease();
  CurlLease(const CurlLease&) = delete;
  CurlLease& operator=(const CurlLease&) = delete;
  ~CurlLease();

  [[nodiscard]] CURL* easy() const noexcept { return easy_; }
  [[nodiscard]] CURLM* multi() const noexcept { return multi_; }

 private:
  detail::CurlProcess& process_;
  CURL* easy_;
  CURLM* multi_;
};

}  // namespace brackenfen::sync
