// Checks whose failure is an answer: the caller goes another way then.
#pragma once

#include <utility>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

/// Whether `check` throws SyncError. Throws whatever else it throws.
template <typename Check>
[[nodiscard]] bool fails_with_sync_error(Check&& check) {
  try {
    std::forward<Check>(check)();
    return false;
  } catch (const Error& error) {
    if (!error.is(error_class::SyncError)) throw;
    return true;
  }
}

}  // namespace brackenfen::sync
