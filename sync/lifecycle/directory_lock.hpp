// The mutual exclusion around one unit of work on a data directory: a re-entrant lock inside the process,
// the advisory lock on `.sync_flock` between processes, and a second, silent one on the directory itself.
//
// `.sync_flock` is unlinked at each release, so a process that was blocked on the old file and the next
// comer with a fresh one could both think they hold it. The lock on the directory's own descriptor, which
// nobody can unlink, is what keeps two holders from running at once. Order: file, then directory; the
// directory's is released last, so that the unlink happens under it.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "sync/base/files/place.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/base/threads/snapshot.hpp"
#include "sync/base/threads/work.hpp"

namespace brackenfen::sync {

inline constexpr const char* FLOCK_FILENAME = ".sync_flock";

/// Any thread. Units of work must not nest: the inner release ends the outer one's protection between
/// processes.
class DirectoryLock {
 public:
  /// Both paths must outlive the lock; they are read at each use, since a host may assign them.
  DirectoryLock(const Guarded<std::string>& data_dir, const Guarded<std::string>& flock_path, Clock& clock);
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;
  ~DirectoryLock();

  /// Blocks without a timeout; throws Interrupted, os_error where the lock file cannot be opened or locked, and
  /// WouldWaitForItself on a worker of the work that holds it.
  void _acquire_flock();
  /// Throws RuntimeError "cannot release un-acquired lock" on a thread that does not hold it, and os_error
  /// where unlocking fails; the lock is free then all the same.
  void _release_flock();
  /// Closes descriptors left behind by a unit of work of this thread that never released. One of another thread is left
  /// alone: it may be under way.
  void close_leftover();
  /// Whether the running thread is part of a unit of work that is under way: the thread of a Hold, or a worker of it.
  [[nodiscard]] bool held_by_this_work();
  /// The same where a bare _acquire_flock() counts too: a unit of work inside this call would end the one around it.
  [[nodiscard]] bool is_held_around_this_call();
  /// For the thread of a Hold, before it commits anything. Throws FileNotFoundError where the data directory's path does
  /// not lead any more to the directory that it led to when the lock was taken.
  void require_directory();
  /// In the child of a fork, before anything else there touches the lock: closes the inherited descriptors,
  /// which leaves the parent's locks as they are, and makes the lock in the process free again. A Hold that
  /// the child inherited on its stack finds nothing left to release.
  void abandon_after_fork() noexcept;

  /// One unit of work.
  class Hold {
   public:
    /// Throws what _acquire_flock throws, and InsideOwnWork inside another one, which it leaves as it is.
    explicit Hold(DirectoryLock& lock);
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    /// Releases now and lets an error of the release reach the caller.
    void release();
    /// An error of the release ends in the debug log: the one on its way out matters more.
    ~Hold();

   private:
    DirectoryLock& lock_;
    bool held_ = true;
  };

 private:
  class OwnerDrop;

  void take_owner();
  /// False where another thread holds it.
  [[nodiscard]] bool try_take_owner();
  /// With mutex_ held, on the thread that owns it or takes it.
  void own_once_more() noexcept;
  void drop_owner() noexcept;
  [[nodiscard]] bool is_owner();
  void count_hold(int change) noexcept;
  void lock_descriptors();
  void lock_directory();
  /// flock(LOCK_EX), tried again and again so that an interrupt ends the wait. 0, or the errno of a failure.
  [[nodiscard]] int wait_for_flock(const Descriptor& descriptor);
  /// Ends the lock even where a forked child still shares the open file.
  void unlock_directory() noexcept;

  const Guarded<std::string>& data_dir_;
  const Guarded<std::string>& flock_path_;
  Clock& clock_;

  std::mutex mutex_;  // guards what follows up to holds_; a leaf
  std::condition_variable freed_;
  std::thread::id owner_;
  WorkId work_ = 0;
  int depth_ = 0;
  int holds_ = 0;  // of depth_, those that a Hold will release

  // Touched only by the owner.
  Descriptor flock_file_;
  Descriptor directory_;
  std::optional<FileId> directory_id_;  ///< of the directory when it was locked, or would have been
};

}  // namespace brackenfen::sync
