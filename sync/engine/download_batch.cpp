#include "sync/engine/download_batch.hpp"

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/threads/worker_thread.hpp"
#include "sync/engine/expected_files.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* WORKER_NAME_PREFIX = "bf-sync";

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

}  // namespace

std::vector<DownloadBatch::Task> DownloadBatch::tasks_for(LocalFiles&& local_files, const std::vector<Item>& items) {
  std::vector<Task> tasks;
  TextMap<std::size_t> task_by_key;
  for (std::size_t index = 0; index < items.size(); ++index) {
    if (index % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
    const auto [entry, is_new] = task_by_key.try_emplace(exclusion_key(local_files, items[index].file_path), tasks.size());
    if (is_new) tasks.emplace_back();
    tasks[entry->second].push_back(index);
  }
  return tasks;
}

/// What a worker keeps from one file to the next; the options lead to the rest.
struct DownloadBatch::Worker {
  const std::unique_ptr<HttpConnections> connections;
  SyncManager::DownloadOptions options;
  std::optional<LocalFiles> local_files = {};
};

DownloadBatch::DownloadBatch(std::shared_ptr<SyncManager> manager, std::shared_ptr<NeighbourSet> neighbours, std::vector<Item> items)
    : manager_(std::move(manager)),
      neighbours_(std::move(neighbours)),
      items_(std::move(items)),
      data_dir_(manager_->_data_dir.get()),
      directory_(real_path(expand_user(data_dir_))),
      tasks_(tasks_for(LocalFiles(data_dir_, directory_), items_)),
      parent_context_(_current_sync_backoff_context(manager_->seams())),
      done_(items_.size()),
      workers_(std::make_shared<ThreadCount>()) {}

void DownloadBatch::start(std::int64_t worker_count) {
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
      if (number == 0) throw;
      return;
    }
  }
}

void DownloadBatch::work() {
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

const DownloadBatch::Task* DownloadBatch::next_task() {
  if (!in_own_process()) return nullptr;
  const std::lock_guard<std::mutex> lock(mutex_);
  return !queue_dropped_ && next_task_ < tasks_.size() ? &tasks_[next_task_++] : nullptr;
}

void DownloadBatch::run_task(const Task& task, Worker& worker) {
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

DownloadBatch::Outcome DownloadBatch::run_item(std::size_t index, Worker& worker) {
  Outcome outcome;
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

bool DownloadBatch::worker_stop_requested() {
  if (cancelled_.load()) return true;
  try {
    if (!parent_context_.stop_requested || !parent_context_.stop_requested()) return false;
  } catch (const Error&) {
    return false;
  }
  parent_stopped_.store(true);
  return true;
}

std::optional<DownloadBatch::Outcome> DownloadBatch::next_outcome(std::optional<double> deadline_seconds) {
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

bool DownloadBatch::nothing_to_come() const {
  return outcomes_.empty() && (consumed_ == items_.size() || (queue_dropped_ && workers_->is_zero()));
}

bool DownloadBatch::finished() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return nothing_to_come();
}

std::exception_ptr DownloadBatch::lost_outcome() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return lost_outcome_;
}

void DownloadBatch::drop_queue() {
  const std::lock_guard<std::mutex> lock(mutex_);
  queue_dropped_ = true;
}

void DownloadBatch::wait_for_workers() {
  while (true) {
    if (workers_->wait_for_zero(INTERRUPT_SLICE)) return;
    if (!interrupt_->tripped()) check_interrupt();
  }
}

std::vector<std::string> DownloadBatch::pending_paths() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> paths;
  for (std::size_t index = 0; index < items_.size(); ++index) {
    if (!done_[index]) paths.push_back(items_[index].file_path);
  }
  return paths;
}

}  // namespace brackenfen::sync
