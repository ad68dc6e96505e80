// PnL artifacts that storage has lost, for as long as the manifest, by era and version, that proved it.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Written by the pass, under its lock; readable on any thread.
class MissingFoundPnl {
 public:
  /// Forgets the paths when era or version (integers, or null) are others than those they belong to.
  void begin(const Value& era, const Value& version);
  /// False where the path was known already.
  [[nodiscard]] bool add(const std::string& path);

  [[nodiscard]] std::set<std::string> paths() const;
  [[nodiscard]] Value version() const;
  void set_paths(std::set<std::string> paths);
  void set_version(Value version);  ///< of whichever era comes next

 private:
  mutable Mutex mutex_;
  std::set<std::string> paths_ GUARDED_BY(mutex_);
  std::optional<Value> era_ GUARDED_BY(mutex_);  // absent: any
  Value version_ GUARDED_BY(mutex_);
};

}  // namespace brackenfen::sync
