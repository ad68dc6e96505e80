#include "sync/base/threads/failure.hpp"

#include <new>

#include "sync/base/log.hpp"
#include "sync/base/threads/worker_thread.hpp"

namespace brackenfen::sync {
namespace {

/// Made while there is memory, and never destroyed.
const Error& out_of_memory = *new Error(error_class::MemoryError, "out of memory");

}  // namespace

Error error_of(const std::exception& failure) {
  if (const auto* error = dynamic_cast<const Error*>(&failure)) return *error;
  if (dynamic_cast<const std::bad_alloc*>(&failure) != nullptr) return out_of_memory;
  return RuntimeError(failure.what());
}

std::string_view told(const Error& error) noexcept { return error.text().empty() ? error.error_class().name() : error.text(); }

void log_failure(const char* format, const std::exception& failure) {
  try {
    log_warning(format, told(error_of(failure)));
  } catch (const std::exception&) {
    if (!on_worker_thread()) throw;
  }
}

}  // namespace brackenfen::sync
