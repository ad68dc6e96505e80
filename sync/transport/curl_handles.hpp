// libcurl's state for the whole process: shared name look-ups and TLS sessions, and handles kept for reuse.
#pragma once

#include <curl/curl.h>

#include <string>

namespace brackenfen::sync {

namespace detail {
struct CurlProcess;
struct CurlPool;
}  // namespace detail

/// What happens once in a process, where it has not yet: see HttpClient::set_up_real.
void set_up_curl() noexcept;

/// An easy handle and the multi handle that drives it.
struct CurlHandles {
  CURL* easy = nullptr;
  CURLM* multi = nullptr;
};

/// Both for one transfer after the other on one thread. They go back to the process when the lease ends: making them anew
/// costs as much as a small transfer, and reading the certificate store that the multi handle keeps more than a handshake.
/// A lease that keeps connections closes them at its end, and its handles with them.
class CurlLease {
 public:
  enum class Connections : char { Close, Keep };
  /// Nothing passes between leases of different certificate directories: neither parsed certificates nor sessions that were
  /// begun by what they vouch for. Throws MemoryError.
  CurlLease(Connections connections, const std::string& certificate_directory);
  CurlLease(const CurlLease&) = delete;
  CurlLease& operator=(const CurlLease&) = delete;
  ~CurlLease();

  enum class Handle : char { New, Used };
  /// An easy handle, either without options or with those of an earlier transfer: each sets
  /// anew what is its own. Throws MemoryError.
  [[nodiscard]] Handle begin_transfer();
  /// The transfer ran to its end, so that another may have the easy handle. After one that broke off, pieces of its headers
  /// would turn up in the next.
  void end_well() noexcept { is_clean_ = true; }

  [[nodiscard]] bool keeps_connections() const noexcept { return connections_ == Connections::Keep; }
  /// Empty for none.
  [[nodiscard]] const std::string& certificate_directory() const noexcept;
  [[nodiscard]] CURL* easy() const noexcept { return handles_.easy; }
  [[nodiscard]] CURLM* multi() const noexcept { return handles_.multi; }

 private:
  detail::CurlProcess& process_;
  detail::CurlPool& pool_;
  const Connections connections_;
  CurlHandles handles_;
  bool is_clean_;  ///< the easy handle: no transfer is under way or broke off in it
};

}  // namespace brackenfen::sync
