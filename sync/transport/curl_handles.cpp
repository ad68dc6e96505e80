#include "sync/transport/curl_handles.hpp"

#include <openssl/crypto.h>
#include <resolv.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/mutex.hpp"

namespace brackenfen::sync {
namespace {

/// Handles beyond this many are freed when their lease ends.
constexpr std::size_t MAX_IDLE_HANDLES = 16;

[[noreturn]] void out_of_memory() { throw Error(error_class::MemoryError, "the HTTP library could not be set up"); }

CURLcode initialise_library() {
  static const CURLcode outcome = [] {
    // A thread that is lost at exit may still be in a transfer, so the TLS library must not be torn down.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    // The resolver reads its variables where its configuration is read, which the threads of look-ups then share.
    struct __res_state resolver = {};
    if (res_ninit(&resolver) == 0) res_nclose(&resolver);
    return curl_global_init(CURL_GLOBAL_DEFAULT);
  }();
  return outcome;
}

}  // namespace

/// What the leases of one certificate directory share.
struct detail::CurlPool {
  explicit CurlPool(std::string directory);
  CurlPool(const CurlPool&) = delete;
  CurlPool& operator=(const CurlPool&) = delete;
  ~CurlPool() { curl_share_cleanup(share); }

  /// Empty where there are none.
  CurlHandles take_idle() {
    const MutexLock lock(idle_mutex);
    if (idle.empty()) return {};
    const CurlHandles taken = idle.back();
    idle.pop_back();
    return taken;
  }
  /// False where there are enough.
  bool keep_idle(const CurlHandles& handles) {
    const MutexLock lock(idle_mutex);
    if (idle.size() >= MAX_IDLE_HANDLES) return false;
    idle.push_back(handles);
    return true;
  }

  const std::string certificate_directory;
  std::array<std::mutex, CURL_LOCK_DATA_LAST + 1> share_locks;
  CURLSH* share;
  Mutex idle_mutex;
  std::vector<CurlHandles> idle GUARDED_BY(idle_mutex);
};

/// Leaked. A forked child forgets its parent's and builds its own: the parent's locks may be held there for
/// ever, and the handles may be in the middle of a transfer.
struct detail::CurlProcess {
  /// Stays for as long as the process: few directories are ever named.
  CurlPool& pool(const std::string& certificate_directory) {
    const MutexLock lock(pools_mutex);
    return pools.try_emplace(certificate_directory, certificate_directory).first->second;
  }

  Mutex pools_mutex;
  std::map<std::string, CurlPool> pools GUARDED_BY(pools_mutex);
};

namespace {

constinit std::atomic<detail::CurlProcess*> current_process{nullptr};
[[maybe_unused]] const bool forgotten_in_child = (at_fork_child([] { current_process.store(nullptr, std::memory_order_release); }), true);

void lock_share(CURL*, curl_lock_data data, curl_lock_access, void* pool) {
  static_cast<detail::CurlPool*>(pool)->share_locks.at(static_cast<std::size_t>(data)).lock();
}

void unlock_share(CURL*, curl_lock_data data, void* pool) {
  static_cast<detail::CurlPool*>(pool)->share_locks.at(static_cast<std::size_t>(data)).unlock();
}

void free_handles(const CurlHandles& handles) {
  curl_easy_cleanup(handles.easy);
  curl_multi_cleanup(handles.multi);
}

detail::CurlProcess& process_in_force() {
  if (detail::CurlProcess* const made = current_process.load(std::memory_order_acquire)) return *made;
  if (initialise_library() != CURLE_OK) out_of_memory();
  auto* const mine = new detail::CurlProcess;
  detail::CurlProcess* first = nullptr;
  if (current_process.compare_exchange_strong(first, mine, std::memory_order_acq_rel)) return *mine;
  delete mine;
  return *first;
}

}  // namespace

detail::CurlPool::CurlPool(std::string directory) : certificate_directory(std::move(directory)), share(curl_share_init()) {
  idle.reserve(MAX_IDLE_HANDLES);  // so that a lease ends without memory
  if (share == nullptr) out_of_memory();
  curl_share_setopt(share, CURLSHOPT_LOCKFUNC, lock_share);
  curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, unlock_share);
  curl_share_setopt(share, CURLSHOPT_USERDATA, this);
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

void set_up_curl() noexcept { static_cast<void>(initialise_library()); }

CurlLease::CurlLease(Connections connections, const std::string& certificate_directory)
    : process_(process_in_force()),
      pool_(process_.pool(certificate_directory)),
      connections_(connections),
      handles_(pool_.take_idle()),
      is_clean_(handles_.easy != nullptr) {
  if (handles_.multi == nullptr) handles_.multi = curl_multi_init();
  if (handles_.multi == nullptr) out_of_memory();
}

CurlLease::Handle CurlLease::begin_transfer() {
  if (std::exchange(is_clean_, false)) return Handle::Used;
  curl_easy_cleanup(std::exchange(handles_.easy, curl_easy_init()));
  if (handles_.easy == nullptr) out_of_memory();
  curl_easy_setopt(handles_.easy, CURLOPT_SHARE, pool_.share);
  return Handle::New;
}

const std::string& CurlLease::certificate_directory() const noexcept { return pool_.certificate_directory; }

CurlLease::~CurlLease() {
  if (&process_ != current_process.load(std::memory_order_acquire)) return;  // the parent's: left alone in its forked child
  if (!is_clean_) curl_easy_cleanup(std::exchange(handles_.easy, nullptr));
  if (keeps_connections() || !pool_.keep_idle(handles_)) free_handles(handles_);
}

}  // namespace brackenfen::sync
