// A set of independent files, fetched at once by a few workers.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <unordered_map>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/threads/work.hpp"
#include "sync/base/threads/worker_thread.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/engine/expected_files.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/backoff.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* WORKER_NAME_PREFIX = "bf-sync";
constexpr std::size_t PREVIEWED_PATHS = 3;

struct Item {
  std::string file_path;
  Document file_info;
};

/// Items that share a local file or a staging file: fetched one after the other by one worker.
using Task = std::vector<std::size_t>;

struct Outcome {
  std::size_t item = 0;
  SyncResult result;
  std::exception_ptr failure;  ///< null for success
  bool superseded = false;
};

/// What a worker keeps from one file to the next; the options lead to the rest.
struct Worker {
  const std::unique_ptr<HttpConnections> connections;
  SyncManager::DownloadOptions options;
  std::optional<LocalFiles> local_files = {};
};

/// How many workers of a batch have not ended. Apart from the batch, so that one counts itself out when it has let go of
/// that and of the manager: nothing of a set that has returned keeps them alive.
class WorkerCount {
 public:
  void rise() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++running_;
  }
  void fall() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --running_;
    fell_.notify_all();
  }
  [[nodiscard]] bool is_zero() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return running_ == 0;
  }
  /// Waits for one slice; whether none runs.
  bool wait_slice() {
    std::unique_lock<std::mutex> lock(mutex_);
    return fell_.wait_for(lock, INTERRUPT_SLICE, [&] { return running_ == 0; });
  }

 private:
  mutable std::mutex mutex_;  // a leaf
  std::condition_variable fell_;
  std::int64_t running_ = 0;
};

/// What the caller and its workers share. Workers that a timeout leaves behind keep it, and the manager,
/// alive until they are done.
class Batch : public std::enable_shared_from_this<Batch> {
 public:
  Batch(std::shared_ptr<SyncManager> manager, std::shared_ptr<NeighbourSet> neighbours, std::vector<Item> items);

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
  /// The caller does not wait for the workers.
  void abandon() { abandoned_.store(true); }
  void interrupt_workers() { interrupt_->trip(); }
  void wait_for_workers();
  [[nodiscard]] std::vector<std::string> pending_paths() const;

 private:
  void work();
  /// Null where there is none left.
  [[nodiscard]] const Task* next_task();
  void run_task(const Task& task, Worker& worker);
  [[nodiscard]] Outcome run_item(std::size_t index, Worker& worker);
  [[nodiscard]] bool worker_stop_requested();
  [[nodiscard]] bool nothing_to_come() const;
  /// False in a child that a callback on a worker forked: the work is the parent's, and the locks may be held for ever.
  [[nodiscard]] bool in_own_process() const { return fork_generation_ == fork_generation(); }

  const std::uint64_t fork_generation_ = fork_generation();
  const std::shared_ptr<SyncManager> manager_;
  const std::shared_ptr<NeighbourSet> neighbours_;
  const std::vector<Item> items_;
  const std::string data_dir_;
  const RootDirectory directory_;  // for all workers, as it was when the batch began
  const std::vector<Task> tasks_;
  const BackoffContext parent_context_;
  const ThreadWork work_ = ThreadWork::current();  // so that a callback on a worker knows which pass it is part of
  const ActivityScope::Part activity_ = ActivityScope::current();
  const std::shared_ptr<InterruptToken> interrupt_ = std::make_shared<InterruptToken>();
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> abandoned_{false};
  std::atomic<bool> parent_stopped_{false};  // the caller's own stop callback has said so to a worker

  mutable std::mutex mutex_;  // a leaf; guards what follows
  std::condition_variable changed_;
  std::deque<Outcome> outcomes_;
  std::vector<bool> done_;
  std::size_t next_task_ = 0;
  bool queue_dropped_ = false;
  std::size_t consumed_ = 0;
  std::exception_ptr lost_outcome_;

  const std::shared_ptr<WorkerCount> workers_ = std::make_shared<WorkerCount>();
};

/// What two items must not touch at the same time: the local path, without the endings that staging adds.
std::string exclusion_key(LocalFiles& local_files, const std::string& file_path) {
  std::string key;
  try {
    key = local_files.local_path(file_path);
  } catch (const Error&) {
    key = file_path;  // refused again, with the error that counts, when it is its turn
  }
  while (key.ends_with(".tmp")) key.resize(key.size() - 4);
  return key;
}

std::vector<Task> tasks_for(LocalFiles&& local_files, const std::vector<Item>& items) {
  std::vector<Task> tasks;
  std::unordered_map<std::string, std::size_t> task_by_key;
  for (std::size_t index = 0; index < items.size(); ++index) {
    if (index % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
    const auto [entry, is_new] = task_by_key.try_emplace(exclusion_key(local_files, items[index].file_path), tasks.size());
    if (is_new) tasks.emplace_back();
    tasks[entry->second].push_back(index);
  }
  return tasks;
}

Batch::Batch(std::shared_ptr<SyncManager> manager, std::shared_ptr<NeighbourSet> neighbours, std::vector<Item> items)
    : manager_(std::move(manager)),
      neighbours_(std::move(neighbours)),
      items_(std::move(items)),
      data_dir_(manager_->_data_dir.get()),
      directory_(real_path(expand_user(data_dir_))),
      tasks_(tasks_for(LocalFiles(data_dir_, directory_), items_)),
      parent_context_(_current_sync_backoff_context(manager_->seams())),
      done_(items_.size()) {}

void Batch::start(std::int64_t worker_count) {
  for (std::int64_t number = 0; number < worker_count; ++number) {
    workers_->rise();
    try {
      start_worker_thread(WORKER_NAME_PREFIX + ("_" + std::to_string(number)), [self = shared_from_this(), workers = workers_]() mutable {
        self->work();
        const bool is_counted = self->in_own_process();
        self.reset();
        if (is_counted) workers->fall();
      });
    } catch (const std::exception&) {
      workers_->fall();
      if (number == 0) throw;  // fewer workers do as well, none does not
      return;
    }
  }
}

void Batch::work() {
  ThreadWork::current() = work_;
  const InterruptScope scope(interrupt_);
  const ActivityScope activity(activity_);
  try {
    Worker worker{manager_->seams().http->connections(), {}};
    worker.options.connections = worker.connections.get();
    worker.options.is_abandoned = [this] { return abandoned_.load(); };  // kept no longer than the call
    worker.options.backoff_context = parent_context_;
    // A host may keep it.
    worker.options.backoff_context->stop_requested = [self = shared_from_this()] { return self->worker_stop_requested(); };
    while (const Task* task = next_task()) run_task(*task, worker);
  } catch (...) {  // run_item holds what a download throws; this is a lack of memory for the outcome
    const std::lock_guard<std::mutex> lock(mutex_);
    lost_outcome_ = std::current_exception();
    queue_dropped_ = true;
  }
}

const Task* Batch::next_task() {
  if (!in_own_process()) return nullptr;
  const std::lock_guard<std::mutex> lock(mutex_);
  return !queue_dropped_ && next_task_ < tasks_.size() ? &tasks_[next_task_++] : nullptr;
}

void Batch::run_task(const Task& task, Worker& worker) {
  for (const std::size_t index : task) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (queue_dropped_ && index != task.front()) return;
    }
    Outcome outcome = run_item(index, worker);
    if (!in_own_process()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    // Whoever asked for the stop would else wait for an attempt of every file that is still queued.
    if (outcome.failure && (parent_stopped_.load() || ActivityScope::wait_is_over(activity_))) queue_dropped_ = true;
    done_[index] = true;
    // What landed is only counted, so the caller sleeps on until its slice is over.
    const bool is_news = outcome.failure || consumed_ + outcomes_.size() + 1 == items_.size();
    outcomes_.push_back(std::move(outcome));
    if (is_news) changed_.notify_all();
  }
}

Outcome Batch::run_item(std::size_t index, Worker& worker) {
  Outcome outcome;
  outcome.item = index;
  const Item& item = items_[index];
  try {
    // Here, where a failure is the file's.
    if (!worker.local_files) worker.options.local_files = &worker.local_files.emplace(data_dir_, directory_);
    manager_->_download_file(*neighbours_, item.file_path, item.file_info, outcome.result, worker.options);
  } catch (const Error& error) {
    outcome.failure = std::current_exception();
    outcome.superseded = error.is(error_class::ManifestSupersededError);
  } catch (...) {
    outcome.failure = std::current_exception();
  }
  return outcome;
}

bool Batch::worker_stop_requested() {
  if (cancelled_.load()) return true;
  try {
    if (!parent_context_.stop_requested || !parent_context_.stop_requested()) return false;
  } catch (const Error&) {
    return false;
  }
  parent_stopped_.store(true);
  return true;
}

std::optional<Outcome> Batch::next_outcome(std::optional<double> deadline_seconds) {
  Clock& clock = *manager_->seams().clock;
  while (true) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!outcomes_.empty()) {
        Outcome outcome = std::move(outcomes_.front());
        outcomes_.pop_front();
        ++consumed_;
        return outcome;
      }
      if (nothing_to_come()) return std::nullopt;
    }
    if (deadline_seconds && clock.monotonic_seconds() >= *deadline_seconds) return std::nullopt;
    check_interrupt();
    std::unique_lock<std::mutex> lock(mutex_);
    if (outcomes_.empty() && !nothing_to_come()) changed_.wait_for(lock, INTERRUPT_SLICE);
  }
}

/// With mutex_ held.
bool Batch::nothing_to_come() const { return outcomes_.empty() && (consumed_ == items_.size() || (queue_dropped_ && workers_->is_zero())); }

bool Batch::finished() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return nothing_to_come();
}

std::exception_ptr Batch::lost_outcome() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return lost_outcome_;
}

void Batch::drop_queue() {
  const std::lock_guard<std::mutex> lock(mutex_);
  queue_dropped_ = true;
}

void Batch::wait_for_workers() {
  while (true) {
    if (workers_->wait_slice()) return;
    if (!interrupt_->tripped()) check_interrupt();
  }
}

std::vector<std::string> Batch::pending_paths() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> paths;
  for (std::size_t index = 0; index < items_.size(); ++index) {
    if (!done_[index]) paths.push_back(items_[index].file_path);
  }
  return paths;
}

[[noreturn]] void throw_timed_out(const std::vector<std::string>& pending_paths, std::optional<double> timeout_seconds) {
  const std::size_t shown = std::min(pending_paths.size(), PREVIEWED_PATHS);
  std::string preview = join({pending_paths.begin(), pending_paths.begin() + static_cast<std::ptrdiff_t>(shown)}, ", ");
  if (pending_paths.size() > shown) preview += ", ...";
  throw SyncError("Timed out after " + _sync_parallel_timeout_description(timeout_seconds) + " in parallel download with " +
                  std::to_string(pending_paths.size()) + " file(s) pending: " + preview);
}

/// Whether the caller, who is told, can do without the file that failed.
bool is_tolerated(const std::exception_ptr& failure, const DownloadFailureFn& tolerates) {
  try {
    std::rethrow_exception(failure);
  } catch (const Error& error) {
    return tolerates && tolerates(error);
  } catch (...) {  // an interrupt, or a lack of memory
    return false;
  }
}

/// The form for one worker: on the calling thread, in order. What is not tolerated ends it at once.
void download_one_by_one(SyncManager& manager, NeighbourSet& neighbours, const std::vector<Item>& items, SyncResult& result,
                         const DownloadFailureFn& tolerates) {
  LocalFiles local_files(manager._data_dir.get());
  const std::unique_ptr<HttpConnections> connections = manager.seams().http->connections();
  SyncManager::DownloadOptions options;
  options.local_files = &local_files;
  options.connections = connections.get();
  std::exception_ptr first_error;
  for (const Item& item : items) {
    try {
      manager._download_file(neighbours, item.file_path, item.file_info, result, options);
    } catch (const Error&) {
      if (!is_tolerated(std::current_exception(), tolerates)) throw;
      if (!first_error) first_error = std::current_exception();
    }
  }
  if (first_error) std::rethrow_exception(first_error);
}

/// Adds a worker's record to the caller's. Only the calling thread writes to `total`.
void add_result(SyncResult& total, const SyncResult& part) {
  total.bytes_downloaded += part.bytes_downloaded;
  total.features_downloaded += part.features_downloaded;
  total.found_pnl_paths_downloaded.insert(total.found_pnl_paths_downloaded.end(), part.found_pnl_paths_downloaded.begin(),
                                          part.found_pnl_paths_downloaded.end());
}

}  // namespace

void SyncManager::_download_files_parallel(const std::shared_ptr<NeighbourSet>& neighbours, const Document& files_to_download,
                                           SyncResult& result, const DownloadFailureFn& tolerates) {
  if (files_to_download.empty()) return;
  std::vector<Item> items;
  for (const Member& member : files_to_download) items.push_back({member.key.str(), *member.value.if_document()});
  const auto item_count = static_cast<std::int64_t>(items.size());
  const std::int64_t worker_count = std::min(item_count, _sync_max_concurrency(*seams_.environment));
  if (worker_count <= 1) return download_one_by_one(*this, *neighbours, items, result, tolerates);

  const std::optional<double> timeout_seconds = _sync_parallel_timeout_seconds(*seams_.environment, item_count, worker_count);
  std::optional<double> deadline_seconds;
  if (timeout_seconds) deadline_seconds = seams_.clock->monotonic_seconds() + *timeout_seconds;
  const auto batch = std::make_shared<Batch>(shared_from_this(), neighbours, std::move(items));

  std::exception_ptr first_error;
  bool superseded = false;
  bool timed_out = false;
  try {
    batch->start(worker_count);
    while (const std::optional<Outcome> outcome = batch->next_outcome(deadline_seconds)) {
      if (!outcome->failure) {
        add_result(result, outcome->result);
      } else if (outcome->superseded) {
        first_error = outcome->failure;
        superseded = true;
        batch->cancel();
        break;
      } else {
        static_cast<void>(is_tolerated(outcome->failure, tolerates));
        if (!first_error) first_error = outcome->failure;
      }
    }
    timed_out = !superseded && !batch->finished();
    batch->drop_queue();
    if (timed_out) {
      batch->abandon();  // running workers go on by themselves
    } else {
      batch->wait_for_workers();
    }
  } catch (...) {  // an interrupt, or no memory to go on: nobody must work on without the locks that the caller now drops
    batch->drop_queue();
    batch->interrupt_workers();
    batch->wait_for_workers();
    while (const std::optional<Outcome> outcome = batch->next_outcome({})) {
      if (!outcome->failure) add_result(result, outcome->result);
    }
    throw;
  }
  if (timed_out) throw_timed_out(batch->pending_paths(), timeout_seconds);
  if (!first_error) first_error = batch->lost_outcome();
  if (first_error) std::rethrow_exception(first_error);
}

}  // namespace brackenfen::sync
