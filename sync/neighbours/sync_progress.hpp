// Reading the size that a manifest entry states.
#pragma once

#include <optional>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

class SyncProgress {
 public:
  virtual ~SyncProgress() = default;
  /// The size in bytes as an integer Value of any size, or absent where the entry states none. Built in: a
  /// size is known when `size_bytes` is a non-negative integer (a boolean is none).
  [[nodiscard]] virtual std::optional<Value> manifest_file_size(const Value& file_info) const = 0;

  static const SyncProgress& builtin();
};

}  // namespace brackenfen::sync
