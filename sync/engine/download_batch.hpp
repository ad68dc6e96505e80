// Files that are fetched at once: a queue, the workers that empty it, and what they hand over.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sync/base/files/root_directory.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/threads/thread_count.hpp"
#include "sync/base/threads/work.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/engine/results.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/backoff.hpp"

namespace brackenfen::sync {

/// What the caller and its workers share. start, next_outcome and what ends a batch are the caller's, on one thread. Workers
/// that a timeout leaves behind keep the batch, and the manager, alive until they are done.
class DownloadBatch : public std::enable_shared_from_this<DownloadBatch> {
 public:
  struct Item {
    std::string file_path;
    Document file_info;
  };
  struct Outcome {
    SyncResult result;
    std::exception_ptr failure;  ///< null for success
    bool superseded = false;
  };

  DownloadBatch(std::shared_ptr<SyncManager> manager, std::shared_ptr<NeighbourSet> neighbours, std::vector<Item> items);

  /// Fewer workers where the system has no more threads. Throws os_error where it has none, and std::bad_alloc.
  void start(std::int64_t worker_count);
  /// The next outcome in order of completion. Absent once there is none to come or, with a deadline, at it.
  /// Throws Interrupted; `interrupt_workers` and `wait_for_workers` are then the caller's to call.
  [[nodiscard]] std::optional<Outcome> next_outcome(std::optional<double> deadline_seconds);
  /// Tasks that have not begun never will.
  void drop_queue();
  /// No outcome is to come any more.
  [[nodiscard]] bool finished() const;
  /// What ended a worker that could not hand over an outcome; null for nothing.
  [[nodiscard]] std::exception_ptr lost_outcome() const;
  /// Ends every back-off sleep of the batch.
  void cancel() { cancelled_.store(true); }
  [[nodiscard]] bool cancelled() const { return cancelled_.load(); }
  /// The caller does not wait for the workers.
  void abandon() { abandoned_.store(true); }
  void interrupt_workers() { interrupt_->trip(); }
  void wait_for_workers();
  [[nodiscard]] std::vector<std::string> pending_paths() const;

 private:
  /// Items that share a local file or a staging file: fetched one after the other by one worker.
  using Task = std::vector<std::size_t>;
  struct Worker;

  [[nodiscard]] static std::vector<Task> tasks_for(LocalFiles&& local_files, const std::vector<Item>& items);
  /// The life of a worker.
  void work();
  /// Null where there is none left.
  [[nodiscard]] const Task* next_task();
  void run_task(const Task& task, Worker& worker);
  [[nodiscard]] Outcome run_item(std::size_t index, Worker& worker);
  [[nodiscard]] bool worker_stop_requested();
  /// With mutex_ held.
  [[nodiscard]] bool nothing_to_come() const;
  /// False in a child that a callback on a worker forked: the work is the parent's, and the locks may be held for ever.
  [[nodiscard]] bool in_own_process() const { return fork_generation_ == fork_generation(); }

  const std::uint64_t fork_generation_ = fork_generation();
  const std::shared_ptr<SyncManager> manager_;
  const std::shared_ptr<NeighbourSet> neighbours_;
  const std::vector<Item> items_;
  const std::string data_dir_;
  const RootDirectory directory_;  ///< for all workers, as it was when the batch began
  const std::vector<Task> tasks_;
  const BackoffContext parent_context_;
  const ThreadWork work_ = ThreadWork::current();  ///< so that a callback on a worker knows which pass it is part of
  const ActivityScope::Part activity_ = ActivityScope::current();
  const std::shared_ptr<InterruptToken> interrupt_ = std::make_shared<InterruptToken>();
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> abandoned_{false};
  std::atomic<bool> parent_stopped_{false};  ///< the caller's own stop callback has said so to a worker

  mutable std::mutex mutex_;  ///< guards what follows; of locks, that of the count alone is taken under it
  std::condition_variable changed_;
  std::deque<Outcome> outcomes_;
  std::vector<bool> done_;
  std::size_t next_task_ = 0;
  bool queue_dropped_ = false;
  std::size_t consumed_ = 0;
  std::exception_ptr lost_outcome_;

  /// Of the workers that have not ended. Apart from the batch, so that one counts itself out when it has let go of that and
  /// of the manager: nothing of a set that has returned keeps them alive.
  const std::shared_ptr<ThreadCount> workers_;
};

}  // namespace brackenfen::sync
