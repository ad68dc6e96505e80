// What a manager is doing, for whoever asks from outside: operations, files in flight, waits, and how it went.
//
// Those at work count here, and nobody is called back. Which activity a download or a wait belongs to follows from the
// running thread, as its part of a unit of work does: an operation and a background thread enter a scope, and hand it to
// their download workers. Below no scope nothing is counted.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "sync/base/files/place.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/mutex.hpp"

namespace brackenfen::sync {

/// Operations and their phases, as hosts see them.
namespace operation {
inline constexpr const char *SYNC = "sync", *REPAIR = "repair", *TRANSITION = "transition", *FEATURES = "features", *VERIFY = "verify",
                            *DOWNLOAD = "download", *PLAN = "plan";
}
namespace phase {
inline constexpr const char *WAITING = "waiting", *MANIFEST = "manifest", *COMPARING = "comparing", *DOWNLOADING = "downloading",
                            *DOCUMENTS = "documents", *COMMITTING = "committing", *PROMOTING = "promoting", *VERIFYING = "verifying";
}

struct FileInFlight {
  std::string relative_path;
  std::int64_t bytes_done = 0;
  std::int64_t bytes_total = 0;  ///< as the manifest states it; what is here where that states none
};

/// A wait for the server, which lasts from the first failure to the answer: while a further try is under way, too.
struct ServerWait {
  std::string endpoint;  ///< the URL's path
  int attempt = 0;       ///< failures so far
  std::string reason;    ///< of the last one, as the events have it
  double since = 0;      ///< seconds since the epoch, as the next
  double next_try_at = 0;
};

/// A wait for another process that works on the directory.
struct LockWait {
  double since = 0;  ///< seconds since the epoch
  std::optional<FileId> locked_file;
};

using WaitUnderWay = std::variant<ServerWait, LockWait>;
[[nodiscard]] double since(const WaitUnderWay& wait) noexcept;

/// An operation at one moment. Done is never more than total.
struct Progress {
  std::string_view operation;
  std::string_view phase;
  std::int64_t files_done = 0;
  std::int64_t files_total = 0;
  std::int64_t bytes_done = 0;
  std::int64_t bytes_total = 0;
  double bytes_per_second = 0;  ///< of the last seconds, as far as somebody asked
  std::vector<FileInFlight> files_in_flight;
  double started_at = 0;  ///< seconds since the epoch
  std::optional<WaitUnderWay> wait;
};

/// How it went so far, and what is waited for. Times are seconds since the epoch.
struct Standing {
  std::optional<double> last_good_at;
  std::optional<std::string> last_error;
  std::optional<double> last_error_at;
  std::optional<WaitUnderWay> waiting_for;
  std::vector<std::string> threads;
};

/// A number that one thread changes and others read.
class SharedCount {
 public:
  SharedCount& operator=(std::int64_t value) noexcept {
    value_.store(value, std::memory_order_relaxed);
    return *this;
  }
  SharedCount& operator+=(std::int64_t more) noexcept { return *this = *this + more; }
  operator std::int64_t() const noexcept { return value_.load(std::memory_order_relaxed); }  // NOLINT: reads as the number it is

 private:
  std::atomic<std::int64_t> value_{0};
};

/// Of one download: how long its staging file is, and what came over the network, whatever became of it.
struct DownloadBytes {
  SharedCount held;
  SharedCount received;
};

/// Shared by a manager and its threads. Any thread; its lock is a leaf, held for no longer than a copy.
class Activity {
 public:
  explicit Activity(Clock& clock) : clock_(clock) {}

  /// Of the operation that began first among those that need not wait for their turn; absent where none runs.
  [[nodiscard]] std::optional<Progress> progress();
  [[nodiscard]] Standing standing() const;

  enum class Good { Work, NothingToDo };
  /// The directory is what the server publishes: a pass or transition has succeeded, or there is nothing to do for a pass,
  /// which says nothing of a transition that failed.
  void note_good(Good good = Good::Work);
  /// Of the operation `of`, null for a look whether there is something to do. The end of a wait that was asked for is none.
  /// Without the memory for it nothing is noted.
  void note_failure(const char* of, const std::exception& failure) noexcept;

  std::atomic<bool> stop_ends_waits{false};  ///< whether a stop ends the back-off waits of background threads
  std::atomic<bool> stopping{false};         ///< from a stop to the next start

 private:
  friend class ActivityScope;
  friend class BackgroundScope;
  friend class Operation;
  friend class DownloadShown;
  friend class ServerWaitShown;
  friend class LockWaitShown;

  using Id = std::uint64_t;
  struct Running {
    Id id = 0;
    Progress shown = {};                                    ///< without what is in flight
    std::uint64_t set = 0;                                  ///< counts those that were announced
    std::int64_t announced = 0;                             ///< files of the set that have not begun
    std::int64_t received = 0;                              ///< bytes of the downloads that have ended
    std::deque<std::pair<double, std::int64_t>> past = {};  ///< monotonic seconds and bytes received by then
  };
  struct Waiting {
    Id id;
    Id operation;  ///< 0 for none
    WaitUnderWay wait;
  };

  Id begin(const char* operation, const char* phase);
  void end(Id operation);
  [[nodiscard]] Running* find(Id operation) REQUIRES(mutex_);
  /// Does nothing to an operation that has ended.
  template <typename Change>
  void change(Id operation, const Change& change) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (Running* const running = find(operation)) change(*running);
  }
  static void announce_one(Running& running, std::int64_t bytes);
  [[nodiscard]] static double rate_of(Running& running, std::int64_t received, double now_seconds);
  void begin_thread(class BackgroundScope& thread) noexcept;
  void end_thread(class BackgroundScope& thread) noexcept;
  void begin_download(class DownloadShown& download);
  void end_download(const class DownloadShown& download);
  Id begin_wait(Id operation, WaitUnderWay wait);
  void end_wait(Id wait);

  Clock& clock_;
  const std::uint64_t fork_generation_ = fork_generation();
  mutable Mutex mutex_;
  Id last_id_ GUARDED_BY(mutex_) = 0;
  std::vector<Running> running_ GUARDED_BY(mutex_);  ///< in the order of their beginning, as are the next
  std::vector<const class DownloadShown*> downloads_ GUARDED_BY(mutex_);
  std::vector<Waiting> waits_ GUARDED_BY(mutex_);
  class BackgroundScope* last_thread_ GUARDED_BY(mutex_) = nullptr;
  Standing standing_ GUARDED_BY(mutex_);               ///< without waits and threads
  bool transition_failed_ GUARDED_BY(mutex_) = false;  ///< last_error is of one
};

/// What the running thread works for, for the life of this scope. Scopes nest on a thread.
class ActivityScope {
 public:
  struct Part {
    std::shared_ptr<Activity> activity = nullptr;
    std::uint64_t operation = 0;  ///< 0 for none
    bool background = false;
  };

  /// What a thread hands on to its workers.
  explicit ActivityScope(Part part) noexcept;
  /// No operation, or the one that the thread is part of already.
  explicit ActivityScope(const std::shared_ptr<Activity>& activity);
  ActivityScope(const ActivityScope&) = delete;
  ActivityScope& operator=(const ActivityScope&) = delete;
  ~ActivityScope();

  /// Of the running thread; one without an activity where it entered none.
  [[nodiscard]] static const Part& current() noexcept;
  /// Whether a stop is to end the back-off wait of such a thread.
  [[nodiscard]] static bool wait_is_over(const Part& part) noexcept {
    return part.background && part.activity->stop_ends_waits && part.activity->stopping;
  }

 private:
  const Part part_;
  const Part* const around_;
};

/// The life of a background thread. Null activity: of nobody's. Needs no memory, so that a thread begins without any.
class BackgroundScope {
 public:
  BackgroundScope(const std::shared_ptr<Activity>& activity, const char* name) noexcept;
  BackgroundScope(const BackgroundScope&) = delete;
  BackgroundScope& operator=(const BackgroundScope&) = delete;
  ~BackgroundScope();

 private:
  friend class Activity;
  const char* const name_;
  const ActivityScope scope_;
  BackgroundScope* before_ = nullptr;  ///< the one that began before, under the activity's lock
};

/// An operation, on the thread that owns it. One inside another is a phase of the outer one, whose name stays.
class Operation {
 public:
  Operation(const std::shared_ptr<Activity>& activity, const char* name, const char* phase);
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  ~Operation();
  /// What leaves it; that of the outermost one counts.
  void note_failure(const std::exception& failure) const noexcept;

  // Of the operation that the running thread is part of, if any.
  static void enter_phase(const char* phase);
  /// A set of files is to come, in the place of any before.
  static void expect(std::int64_t files, std::int64_t bytes);
  /// One of them is here without a download, or was read.
  static void count_file(std::int64_t bytes) { count_file(ActivityScope::current(), bytes); }
  static void count_file(const ActivityScope::Part& part, std::int64_t bytes);

 private:
  static ActivityScope::Part part_of(const std::shared_ptr<Activity>& activity, const char* name, const char* phase);

  const ActivityScope::Part around_;  ///< a copy: the thread may be part of an operation of another manager
  const ActivityScope scope_;
  const char* const name_;
  const char* phase_around_ = nullptr;  ///< null for the outermost
};

/// Runs `work` as an operation, and remembers what it fails with.
template <typename Work>
auto run_operation(const std::shared_ptr<Activity>& activity, const char* name, const char* phase, const Work& work) {
  const Operation operation(activity, name, phase);
  try {
    return work();
  } catch (const std::exception& failure) {
    operation.note_failure(failure);
    throw;
  }
}

/// A file in flight. What it is given must outlive it.
class DownloadShown {
 public:
  /// A file of the set, or one more where all of them have begun. `expected_bytes` 0 says nothing.
  DownloadShown(const std::string& file_path, std::int64_t expected_bytes, const DownloadBytes& bytes);
  DownloadShown(const DownloadShown&) = delete;
  DownloadShown& operator=(const DownloadShown&) = delete;
  ~DownloadShown();
  /// It has its place.
  void landed() noexcept { landed_ = true; }

 private:
  friend class Activity;
  [[nodiscard]] FileInFlight now() const;

  const ActivityScope::Part part_ = ActivityScope::current();
  const std::string& file_path_;
  const std::int64_t expected_bytes_;
  const DownloadBytes& bytes_;
  std::uint64_t set_ = 0;  ///< that it belongs to, under the activity's lock: it counts for no later one
  bool landed_ = false;
};

/// The ServerWait of one request, once it has failed.
class ServerWaitShown {
 public:
  ServerWaitShown() = default;
  ServerWaitShown(const ServerWaitShown&) = delete;
  ServerWaitShown& operator=(const ServerWaitShown&) = delete;
  ~ServerWaitShown();
  void failed(std::string_view url, int attempt, std::string_view reason, double wait_seconds);
  /// Until it fails again: it then counts as the same wait.
  void pause();

 private:
  std::shared_ptr<Activity> activity_;
  std::uint64_t id_ = 0;
  double since_ = 0;
};

class LockWaitShown {
 public:
  explicit LockWaitShown(std::optional<FileId> locked_file);
  LockWaitShown(const LockWaitShown&) = delete;
  LockWaitShown& operator=(const LockWaitShown&) = delete;
  ~LockWaitShown();

 private:
  const std::shared_ptr<Activity> activity_ = ActivityScope::current().activity;
  std::uint64_t id_ = 0;
};

}  // namespace brackenfen::sync
