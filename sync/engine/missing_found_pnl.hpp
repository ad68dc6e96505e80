// PnL artifacts that storage has lost, for as long as the manifest version that proved it.
#pragma once

#include <set>
#include <string>

#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Written by the pass, under its lock; readable on any thread.
class MissingFoundPnl {
 public:
  /// Forgets the paths when `version` (an integer, or null) is another than the one they belong to.
  void begin_version(const Value& version);
  /// False where the path was known already.
  [[nodiscard]] bool add(const std::string& path, const Value& version);

  [[nodiscard]] std::set<std::string> paths() const;
  [[nodiscard]] Value version() const;
  void set_paths(std::set<std::string> paths);
  void set_version(Value version);

 private:
  mutable Mutex mutex_;
  std::set<std::string> paths_ GUARDED_BY(mutex_);
  Value version_ GUARDED_BY(mutex_);
};

}  // namespace brackenfen::sync
