#include <fcntl.h>
#include <unistd.h>

#include <exception>

#include "sync/base/descriptor.hpp"
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/paths.hpp"
#include "sync/era/directory_tree.hpp"
#include "sync/era/transition.hpp"

namespace brackenfen::sync {

SyncManager::TransitionScope::TransitionScope(SyncManager& manager)
    : manager_(manager), lock_path_(join_path(manager._data_dir.get(), TRANSITION_LOCK_FILENAME)) {
  manager_._in_transition = true;
  write_transition_lock();
  unit_of_work_.emplace(manager_._directory_lock);
}

/// A signal for requests, here and in other processes; it excludes nobody. The file of a transition that died is taken
/// over.
void SyncManager::TransitionScope::write_transition_lock() {
  try {
    Descriptor file = open_file(lock_path_, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
    write_all(file, std::to_string(::getpid()), lock_path_);
    file.close();
  } catch (const Error& error) {
    log_warning("Failed to write transition lock file: %s", error.text());
  }
}

void SyncManager::TransitionScope::make_staging_directory(const std::string& path) {
  remove_tree(path);
  make_directories(path);
  staging_dir_ = path;
}

void SyncManager::TransitionScope::close() {
  manager_._status_message.set(nullptr);
  manager_._in_transition = false;
  std::exception_ptr failed_release;
  try {
    unit_of_work_->release();
  } catch (const Error&) {
    failed_release = std::current_exception();
  }
  unit_of_work_.reset();
  if (!staging_dir_.empty() && is_directory(staging_dir_)) {
    try {
      remove_tree(staging_dir_);
    } catch (const Error&) {  // a later transition to this era removes it
    }
  }
  remove_transition_lock();
  if (failed_release) std::rethrow_exception(failed_release);
}

void SyncManager::TransitionScope::remove_transition_lock() {
  if (!path_exists(lock_path_)) return;
  try {
    manager_.seams().files->unlink(lock_path_);
  } catch (const Error& error) {
    log_debug("best-effort transition_lock cleanup failed for %s: %s", lock_path_, error.text());
  }
}

SyncManager::TransitionScope::~TransitionScope() {
  if (!unit_of_work_) return;
  try {
    close();
  } catch (const Error& error) {
    log_debug("Releasing the directory lock after a failed transition: %s", error.text());
  }
}

}  // namespace brackenfen::sync
