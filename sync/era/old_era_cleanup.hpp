// Directories of earlier eras inside a data directory: recognised, removed, and that on a thread of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/threads/background_thread.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The era that a directory's name says: "era_12" and "era12" give 12. Absent for any other name.
[[nodiscard]] std::optional<Value> _parse_era_directory_id(std::string_view name);

/// Removes the era directories directly inside `data_dir` but that of `kept_era`, where one is given. Links are
/// neither followed nor removed. Returns the bytes freed; throws os_error with what was removed gone.
std::int64_t remove_era_directories(const std::string& data_dir, const std::optional<Value>& kept_era);

/// Removes what else holds data: manifest.json, shuffle_seed.enc, and every directory whose name does not begin with
/// a dot. Returns the bytes freed; throws os_error with what was removed gone.
std::int64_t remove_all_data(const std::string& data_dir);

/// At most one clean-up thread at a time. Any thread.
class OldEraCleanup {
 public:
  /// Runs `clean` on a thread of its own; does nothing where the one before still runs. `clean` owns, by shared
  /// handles, all it touches, and lets no Error out. Throws os_error where the system has no thread left.
  void schedule(std::function<void()> clean);
  /// The last one started; null before the first.
  [[nodiscard]] std::shared_ptr<BackgroundThread> _cleanup_thread() const;

 private:
  mutable Mutex _cleanup_lock;
  std::shared_ptr<BackgroundThread> thread_ GUARDED_BY(_cleanup_lock);
};

}  // namespace brackenfen::sync
