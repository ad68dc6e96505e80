// Many independent pieces of work on all cores.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <system_error>
#include <thread>
#include <vector>

#include "sync/base/threads/mutex.hpp"

namespace brackenfen::sync::distribution {

/// Calls `work(index)` once for each index below `count`, on as many threads as the machine has cores, and
/// returns when all are done. The first exception ends the rest early and is thrown here.
inline void for_each_index(std::size_t count, const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next{0};
  Mutex mutex;
  std::exception_ptr first_failure;
  const auto run = [&] {
    try {
      for (std::size_t index = next.fetch_add(1); index < count; index = next.fetch_add(1)) work(index);
    } catch (...) {
      next.store(count);
      const MutexLock lock(mutex);
      if (!first_failure) first_failure = std::current_exception();
    }
  };
  const std::size_t threads = std::min<std::size_t>(count, std::max(1U, std::thread::hardware_concurrency()));
  std::vector<std::jthread> helpers;
  try {
    for (std::size_t i = 1; i < threads; ++i) helpers.emplace_back(run);
  } catch (const std::system_error&) {  // so many are not allowed; those that there are do it all
  }
  run();
  helpers.clear();
  if (first_failure) std::rethrow_exception(first_failure);
}

}  // namespace brackenfen::sync::distribution
