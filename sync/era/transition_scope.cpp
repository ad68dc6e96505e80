#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/era/directory_tree.hpp"
#include "sync/era/transition.hpp"

namespace brackenfen::sync {

SyncManager::TransitionScope::TransitionScope(SyncManager& manager)
    : manager_(manager), lock_path_(join_path(manager._data_dir.get(), TRANSITION_LOCK_FILENAME)) {
  manager_._in_transition = true;
  write_transition_lock();
  unit_of_work_.emplace(manager_._directory_lock);
  manager_.transition_has_directory_ = true;
}

/// A signal for requests, here and in other processes; it excludes nobody. The file of a transition that died is taken
/// over.
void SyncManager::TransitionScope::write_transition_lock() {
  try {
    Descriptor file = open_own_file(lock_path_, O_WRONLY);
    if (::ftruncate(file.get(), 0) != 0) throw os_error(errno, lock_path_);
    write_all(file, std::to_string(::getpid()), lock_path_);
    file.close();
  } catch (const Error& error) {
    log_warning("Failed to write transition lock file: %s", error.text());
  }
}

void SyncManager::TransitionScope::make_staging_directory(const std::string& path) {
  manager_.require_own_process();
  manager_._directory_lock.require_directory();
  remove_tree(path);
  make_directories(path);
  staging_dir_ = path;
  staging_ = open_file(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
}

void SyncManager::TransitionScope::close() {
  manager_._status_message.set(nullptr);
  manager_._in_transition = false;
  manager_.transition_has_directory_ = false;
  FirstFailure failure;
  failure.run([this] { unit_of_work_->release(); });
  unit_of_work_.reset();
  if (manager_.in_own_process()) {  // else both belong to the parent of a fork, whose transition goes on
    failure.run([this] { remove_staging_directory(); });
    failure.run([this] { remove_transition_lock(); });
  }
  failure.rethrow();
}

void SyncManager::TransitionScope::remove_staging_directory() {
  if (staging_dir_.empty()) return;
  try {
    // By its descriptor: whoever waited for the lock may be staging under the same name by now. To the end: the interrupt
    // that ended the transition may be pending still.
    staging_ ? remove_tree(staging_, staging_dir_, Removal::ToTheEnd) : remove_tree(staging_dir_, Removal::ToTheEnd);
  } catch (const Error&) {  // a later transition to this era removes it
  }
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
  drop_failure([this] {
    try {
      close();
    } catch (const Error& error) {
      log_debug("Releasing the directory lock after a failed transition: %s", error.text());
    }
  });
}

}  // namespace brackenfen::sync
