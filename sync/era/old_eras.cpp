// Removing what earlier eras left in the directory.
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

void warn_of_failed_cleanup(const std::exception& failure) {
  const Error error = error_of(failure);
  log_warning_with_stack(error, nullptr, "Background old-era cleanup failed: %s", error.text());
}

}  // namespace

std::int64_t SyncManager::cleanup_old_eras(bool keep_current) {
  require_own_process();
  const std::string data_dir = _data_dir.get();
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  std::optional<Value> current_era_number;
  if (keep_current && manifest) current_era_number = to_integer_or_absent(manifest->era_number());
  std::int64_t bytes_freed = remove_era_directories(data_dir, current_era_number);
  if (!keep_current) bytes_freed += remove_all_data(data_dir);
  return bytes_freed;
}

void SyncManager::_schedule_cleanup_old_eras(bool keep_current) {
  try {
    _old_era_cleanup.schedule([self = shared_from_this(), keep_current] {
      const BackgroundScope scope(self->activity_, "brackenfen-sync-cleanup");
      self->_cleanup_old_eras_background(keep_current);
    });
  } catch (const std::exception& failure) {
    warn_of_failed_cleanup(failure);  // the era has come all the same, and what is left goes behind the next one
  }
}

void SyncManager::_cleanup_old_eras_background(bool keep_current) {
  try {
    const std::int64_t bytes_freed = cleanup_old_eras(keep_current);
    if (bytes_freed != 0) log_info("Old era cleanup completed: freed %s bytes", bytes_freed);
  } catch (const std::exception& failure) {
    warn_of_failed_cleanup(failure);
  }
}

}  // namespace brackenfen::sync
