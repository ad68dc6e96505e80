#include "sync/base/threads/worker_thread.hpp"

#include <pthread.h>

#include <system_error>
#include <thread>

#include "sync/base/error.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/fresh_after_fork.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/threads/thread_count.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t SYSTEM_NAME_BYTES = 15;

ThreadCount& count() { return fresh_after_fork<ThreadCount>(); }
[[maybe_unused]] static const auto& made_at_load = count();  // see at_fork_child

constinit thread_local bool started_here = false;

/// Workers hand an interrupt to the thread that owns the work; what comes out here has no owner.
void run_top(const std::function<void()>& body) {
  try {
    warn_of_failure("A thread of the library ended with a failure: %s", body);
  } catch (const Interrupted& interrupted) {
    drop_failure([&] { report_unclaimed(interrupted); });
  }
}

}  // namespace

bool on_worker_thread() noexcept { return started_here; }

void start_worker_thread(const std::string& name, std::function<void()> body) {
  ThreadCount& threads = count();
  threads.rise();
  try {
    std::thread([body = std::move(body), system_name = name.substr(0, SYSTEM_NAME_BYTES), &threads]() mutable {
      pthread_setname_np(pthread_self(), system_name.c_str());
      started_here = true;
      run_top(body);
      body = nullptr;  // what the body owned goes before the thread counts as gone
      threads.fall();
    }).detach();
  } catch (const std::system_error& failure) {
    threads.fall();
    throw os_error(failure.code().value(), name);
  } catch (...) {
    threads.fall();
    throw;
  }
}

bool wait_for_worker_threads(std::chrono::milliseconds timeout) { return count().wait_for_zero(timeout); }

}  // namespace brackenfen::sync
