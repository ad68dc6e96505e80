#include "sync/lifecycle/directory_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <unordered_set>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/transport/activity.hpp"

namespace brackenfen::sync {
namespace {

// Between two tries of a lock that another process holds. Short at first, since most units of work are.
constexpr double FIRST_PAUSE_SECONDS = 0.001;
constexpr double LONGEST_PAUSE_SECONDS = 0.020;
constexpr double PAUSE_GROWTH = 1.5;

/// 0, or the errno of a failure.
int flock_once(const Descriptor& descriptor, int operation) noexcept {
  while (::flock(descriptor.get(), operation) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

/// File systems that lock no directories, or none that is open for reading only, say so in these ways; EACCES
/// comes from a directory that may be written but not read.
bool means_not_available(int error_number) {
  return error_number == EBADF || error_number == ENOLCK || error_number == EOPNOTSUPP || error_number == EACCES;
}

void log_failed_close(int error_number) {
  if (error_number != 0) log_debug("Failed to close flock file descriptor: %s", os_error(error_number).text());
}

/// Every lock of this process, so that a forked child can let go of what it inherited. Leaked; changed under
/// NoFork alone.
std::unordered_set<DirectoryLock*>& live_locks() {
  static auto& locks = *[] {
    at_fork_child([] {
      for (DirectoryLock* lock : live_locks()) lock->abandon_after_fork();
    });
    return new std::unordered_set<DirectoryLock*>;
  }();
  return locks;
}
[[maybe_unused]] static const auto& made_at_load = live_locks();  // see at_fork_child

}  // namespace

/// Makes the lock free for other threads at the end of a scope, whatever happens in it.
class DirectoryLock::OwnerDrop {
 public:
  explicit OwnerDrop(DirectoryLock& lock) : lock_(lock) {}
  OwnerDrop(const OwnerDrop&) = delete;
  OwnerDrop& operator=(const OwnerDrop&) = delete;
  ~OwnerDrop() { lock_.drop_owner(); }

 private:
  DirectoryLock& lock_;
};

DirectoryLock::DirectoryLock(const Guarded<std::string>& data_dir, const Guarded<std::string>& flock_path, Clock& clock)
    : data_dir_(data_dir), flock_path_(flock_path), clock_(clock) {
  auto& locks = live_locks();
  const NoFork whole;
  locks.insert(this);
}

DirectoryLock::~DirectoryLock() {
  const NoFork whole;
  live_locks().erase(this);
}

void DirectoryLock::_acquire_flock() {
  take_owner();
  try {
    lock_descriptors();
  } catch (...) {
    int close_error = 0;
    {
      const OwnerDrop drop(*this);
      if (flock_file_) flock_once(flock_file_, LOCK_UN);
      close_error = flock_file_.try_close();
      unlock_directory();
    }
    drop_failure([&] { log_failed_close(close_error); });
    throw;
  }
}

void DirectoryLock::_release_flock() {
  if (!is_owner()) throw RuntimeError("cannot release un-acquired lock");
  int unlock_error = 0;
  int close_error = 0;
  int unlink_error = 0;
  std::string flock_path;
  drop_failure([&] { flock_path = flock_path_.get(); });  // without memory for its name the file stays, for the next release
  {
    const OwnerDrop drop(*this);
    if (flock_file_) {
      unlock_error = flock_once(flock_file_, LOCK_UN);
      close_error = flock_file_.try_close();
      if (!flock_path.empty() && ::unlink(flock_path.c_str()) != 0 && errno != ENOENT) unlink_error = errno;
    }
    unlock_directory();
    directory_id_.reset();
  }
  // Logging runs code of the host, which may end this call: everything is free by now.
  log_failed_close(close_error);
  if (unlink_error != 0) log_debug("Failed to remove flock file: %s", os_error(unlink_error, flock_path).text());
  if (unlock_error != 0) throw os_error(unlock_error);
}

void DirectoryLock::close_leftover() {
  int close_error = 0;
  {
    if (!try_take_owner()) return;
    const OwnerDrop drop(*this);
    close_error = flock_file_.try_close();
    unlock_directory();
    directory_id_.reset();
  }
  if (close_error != 0) log_debug("Failed to close file descriptor: %s", os_error(close_error).text());
}

void DirectoryLock::abandon_after_fork() noexcept {
  // Threads that held the mutex or waited here do not exist in the child, so both are made anew where they
  // lie; to destroy them would be to wait for those threads.
  new (&mutex_) std::mutex;
  new (&freed_) std::condition_variable;
  flock_file_ = Descriptor();
  directory_ = Descriptor();
  directory_id_.reset();
  owner_ = std::thread::id();
  work_ = 0;
  depth_ = 0;
  holds_ = 0;
}

void DirectoryLock::take_owner() {
  const std::thread::id self = std::this_thread::get_id();
  std::unique_lock<std::mutex> lock(mutex_);
  for (int slice = 0; depth_ > 0 && owner_ != self; ++slice) {
    const WorkWait wait(work_, Patience::Long, slice);
    freed_.wait_for(lock, INTERRUPT_SLICE);
    if (depth_ == 0) break;
    lock.unlock();
    check_interrupt();
    lock.lock();
  }
  own_once_more();
}

bool DirectoryLock::try_take_owner() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (depth_ > 0 && owner_ != std::this_thread::get_id()) return false;
  own_once_more();
  return true;
}

void DirectoryLock::own_once_more() noexcept {
  if (depth_++ > 0) return;
  owner_ = std::this_thread::get_id();
  work_ = ThreadWork::current().begin();
}

void DirectoryLock::drop_owner() noexcept {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (--depth_ > 0) return;
    ThreadWork::current().end(work_);
    owner_ = std::thread::id();
    work_ = 0;
  }
  freed_.notify_one();
}

bool DirectoryLock::held_by_this_work() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return holds_ > 0 && ThreadWork::current().is_part_of(work_);
}

bool DirectoryLock::is_held_around_this_call() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return ThreadWork::current().is_part_of(work_);
}

void DirectoryLock::count_hold(int change) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  holds_ += change;
}

bool DirectoryLock::is_owner() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return depth_ > 0 && owner_ == std::this_thread::get_id();
}

void DirectoryLock::lock_descriptors() {
  for (;;) {
    const std::optional<FileId> opened = file_id(data_dir_.get());
    if (!flock_file_) flock_file_ = open_own_file(flock_path_.get(), O_APPEND | O_RDWR);
    if (const int error_number = wait_for_flock(flock_file_); error_number != 0) throw os_error(error_number);
    if (!directory_) lock_directory();
    if (directory_id_) return;  // inside another acquisition
    directory_id_ = file_id(data_dir_.get());
    if (directory_id_ == (directory_ ? file_id(directory_) : opened)) return;
    // While this waited the path came to lead to another directory, whose locks somebody else may hold.
    flock_once(flock_file_, LOCK_UN);
    flock_file_ = Descriptor();
    unlock_directory();
    directory_id_.reset();
  }
}

void DirectoryLock::require_directory() {
  if (!is_owner() || !directory_id_) return;
  const std::string data_dir = data_dir_.get();
  if (file_id(data_dir) != directory_id_) throw os_error(ENOENT, data_dir);
}

void DirectoryLock::lock_directory() {
  const std::string data_dir = data_dir_.get();
  directory_ = Descriptor(::open(data_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const int error_number = directory_ ? wait_for_flock(directory_) : errno;
  if (error_number == 0) return;
  directory_ = Descriptor();
  if (!means_not_available(error_number)) throw os_error(error_number, data_dir);
  log_debug("Directory lock is not available: %s", os_error(error_number, data_dir).text());
}

int DirectoryLock::wait_for_flock(const Descriptor& descriptor) {
  std::optional<LockWaitShown> shown;
  for (double pause_seconds = FIRST_PAUSE_SECONDS;; pause_seconds = std::min(pause_seconds * PAUSE_GROWTH, LONGEST_PAUSE_SECONDS)) {
    const int error_number = flock_once(descriptor, LOCK_EX | LOCK_NB);
    if (error_number != EWOULDBLOCK) return error_number;
    if (!shown) shown.emplace(file_id(descriptor));
    clock_.sleep(pause_seconds);
  }
}

void DirectoryLock::unlock_directory() noexcept {
  if (!directory_) return;
  flock_once(directory_, LOCK_UN);
  directory_ = Descriptor();
}

DirectoryLock::Hold::Hold(DirectoryLock& lock) : lock_(lock) {
  if (lock_.held_by_this_work()) throw InsideOwnWork();
  lock_._acquire_flock();
  lock_.count_hold(1);
}

void DirectoryLock::Hold::release() {
  if (!std::exchange(held_, false)) return;
  {
    const std::lock_guard<std::mutex> lock(lock_.mutex_);
    if (lock_.holds_ == 0) return;  // in the child of a fork: the unit of work is the parent's, and the parent releases it
  }
  lock_.count_hold(-1);
  lock_._release_flock();
}

DirectoryLock::Hold::~Hold() {
  drop_failure([this] {
    try {
      release();
    } catch (const Error& error) {
      log_debug("Failed to release directory lock: %s", error.text());
    }
  });
}

}  // namespace brackenfen::sync
