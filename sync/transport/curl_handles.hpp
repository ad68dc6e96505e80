// libcurl's state for the whole process: shared name look-ups and TLS sessions, and handles kept for reuse.
#pragma once

#include <curl/curl.h>

namespace brackenfen::sync {

namespace detail {
struct CurlProcess;
}

/// What happens once in a process, where it has not yet: see HttpClient::set_up_real.
void set_up_curl() noexcept;

/// An easy handle and the multi handle that drives it.
struct CurlHandles {
  CURL* easy = nullptr;
  CURLM* multi = nullptr;
};

/// Both for one transfer on one thread. They go back to the process when the lease ends: making them anew costs as
/// much as a small transfer, and reading the certificate store that the multi handle keeps more than a handshake. No
/// connection is ever kept.
class CurlLease {
 public:
  /// Throws MemoryError.
  CurlLease();
  CurlLease(const CurlLease&) = delete;
  CurlLease& operator=(const CurlLease&) = delete;
  ~CurlLease();

  /// Another transfer may have the easy handle, of which only the options are reset. Not after one that broke off: pieces
  /// of its headers would turn up in the next.
  void end_well() noexcept { ended_well_ = true; }

  [[nodiscard]] CURL* easy() const noexcept { return handles_.easy; }
  [[nodiscard]] CURLM* multi() const noexcept { return handles_.multi; }

 private:
  detail::CurlProcess& process_;
  CurlHandles handles_;
  bool ended_well_ = false;
};

}  // namespace brackenfen::sync
