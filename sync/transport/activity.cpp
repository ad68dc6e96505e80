#include "sync/transport/activity.hpp"

#include <algorithm>
#include <limits>

#include "sync/base/error.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/neighbours/sync_backoff.hpp"
#include "sync/transport/events.hpp"

namespace brackenfen::sync {
namespace {

/// The rate is that of this long, and looked at no more often than that.
constexpr double RATE_SECONDS = 5.0;
constexpr double RATE_STEP_SECONDS = 0.25;

constinit thread_local const ActivityScope::Part* current_part = nullptr;
/// Of a thread that entered nothing. Leaked: one may outlive main().
const ActivityScope::Part& nobodys_part = *new ActivityScope::Part;

/// A manifest may state any size.
void add_bytes(std::int64_t& total, std::int64_t bytes) {
  if (__builtin_add_overflow(total, bytes, &total)) total = std::numeric_limits<std::int64_t>::max();
}

void keep_earliest(std::optional<WaitUnderWay>& earliest, const WaitUnderWay& wait) {
  if (!earliest || since(wait) < since(*earliest)) earliest = wait;
}

}  // namespace

double since(const WaitUnderWay& wait) noexcept {
  return std::visit([](const auto& each) { return each.since; }, wait);
}

// ---- what others see -------------------------------------------------------------------------------------

std::optional<Progress> Activity::progress() {
  const double now_seconds = clock_.monotonic_seconds();
  const MutexLock lock(mutex_);
  if (running_.empty()) return std::nullopt;
  Running* chosen = &running_.front();
  for (Running& each : running_) {
    if (each.shown.phase == phase::WAITING) continue;
    chosen = &each;
    break;
  }
  Progress progress = chosen->shown;
  std::int64_t received = chosen->received;
  for (const DownloadShown* download : downloads_) {
    if (download->part_.operation != chosen->id) continue;
    received += download->bytes_.received;
    progress.files_in_flight.push_back(download->now());
    if (download->set_ != chosen->set) continue;
    add_bytes(progress.bytes_done, std::min(progress.files_in_flight.back().bytes_done, download->expected_bytes_));
  }
  progress.bytes_done = std::min(progress.bytes_done, progress.bytes_total);
  for (const Waiting& waiting : waits_)
    if (waiting.operation == chosen->id) keep_earliest(progress.wait, waiting.wait);
  progress.bytes_per_second = rate_of(*chosen, received, now_seconds);
  return progress;
}

double Activity::rate_of(Running& running, std::int64_t received, double now_seconds) {
  auto& past = running.past;
  if (past.empty() || now_seconds - past.back().first >= RATE_STEP_SECONDS) past.emplace_back(now_seconds, received);
  while (past.size() > 1 && past[1].first <= now_seconds - RATE_SECONDS) past.pop_front();
  const double seconds = now_seconds - past.front().first;
  return seconds > 0 ? static_cast<double>(received - past.front().second) / seconds : 0.0;
}

Standing Activity::standing() const {
  const MutexLock lock(mutex_);
  Standing standing = standing_;
  for (const Waiting& waiting : waits_) keep_earliest(standing.waiting_for, waiting.wait);
  for (const BackgroundScope* each = last_thread_; each != nullptr; each = each->before_) standing.threads.emplace_back(each->name_);
  return standing;
}

void Activity::note_good(Good good) {
  const double now = clock_.wall_seconds();
  const MutexLock lock(mutex_);
  standing_.last_good_at = now;
  if (good == Good::NothingToDo && transition_failed_) return;
  transition_failed_ = false;
  standing_.last_error.reset();
  standing_.last_error_at.reset();
}

void Activity::note_failure(const char* of, const std::exception& failure) noexcept {
  drop_failure([&] {
    const Error error = error_of(failure);
    if (error.is(error_class::SyncBackoffCancelled)) return;
    std::string text(error.error_class().name());
    if (!error.text().empty()) text += ": " + error.text();
    const double now = clock_.wall_seconds();
    const MutexLock lock(mutex_);
    transition_failed_ = of != nullptr && std::string_view(of) == operation::TRANSITION;
    standing_.last_error = std::move(text);
    standing_.last_error_at = now;
  });
}

// ---- operations ------------------------------------------------------------------------------------------

Activity::Id Activity::begin(const char* operation, const char* phase) {
  Running running;
  running.shown.operation = operation;
  running.shown.phase = phase;
  running.shown.started_at = clock_.wall_seconds();
  const MutexLock lock(mutex_);
  running.id = ++last_id_;
  running_.push_back(std::move(running));
  return last_id_;
}

void Activity::end(Id operation) {
  const MutexLock lock(mutex_);
  std::erase_if(running_, [&](const Running& each) { return each.id == operation; });
}

Activity::Running* Activity::find(Id operation) {
  const auto found = std::find_if(running_.begin(), running_.end(), [&](const Running& each) { return each.id == operation; });
  return found == running_.end() ? nullptr : &*found;
}

void Activity::announce_one(Running& running, std::int64_t bytes) {
  if (running.announced > 0) {
    --running.announced;
  } else {
    ++running.shown.files_total;
    add_bytes(running.shown.bytes_total, bytes);
  }
}

ActivityScope::ActivityScope(Part part) noexcept : part_(std::move(part)), around_(current_part) { current_part = &part_; }

ActivityScope::ActivityScope(const std::shared_ptr<Activity>& activity)
    : ActivityScope(current().activity == activity ? current() : Part{activity}) {}

ActivityScope::~ActivityScope() { current_part = around_; }

const ActivityScope::Part& ActivityScope::current() noexcept { return current_part != nullptr ? *current_part : nobodys_part; }

BackgroundScope::BackgroundScope(const std::shared_ptr<Activity>& activity, const char* name) noexcept
    : name_(name), scope_(ActivityScope::Part{activity, 0, activity != nullptr}) {
  if (activity) activity->begin_thread(*this);
}

BackgroundScope::~BackgroundScope() {
  if (const auto& activity = ActivityScope::current().activity) activity->end_thread(*this);
}

void Activity::begin_thread(BackgroundScope& thread) noexcept {
  const MutexLock lock(mutex_);
  thread.before_ = std::exchange(last_thread_, &thread);
}

void Activity::end_thread(BackgroundScope& thread) noexcept {
  if (fork_generation_ != fork_generation()) return;  // the other scopes were on stacks that are used for something else by now
  const MutexLock lock(mutex_);
  BackgroundScope** link = &last_thread_;
  while (*link != &thread) link = &(*link)->before_;
  *link = thread.before_;
}

Operation::Operation(const std::shared_ptr<Activity>& activity, const char* name, const char* phase)
    : around_(ActivityScope::current()), scope_(part_of(activity, name, phase)), name_(name) {
  const ActivityScope::Part& part = ActivityScope::current();
  if (around_.activity != activity || around_.operation != part.operation) return;
  activity->change(part.operation, [&](Activity::Running& running) {
    phase_around_ = running.shown.phase.data();
    running.shown.phase = phase;
  });
}

ActivityScope::Part Operation::part_of(const std::shared_ptr<Activity>& activity, const char* name, const char* phase) {
  const ActivityScope::Part& around = ActivityScope::current();
  const bool is_own = around.activity == activity;
  if (is_own && around.operation != 0) return around;
  return {activity, activity->begin(name, phase), is_own && around.background};
}

Operation::~Operation() {
  const ActivityScope::Part& part = ActivityScope::current();
  if (phase_around_ != nullptr) {
    enter_phase(phase_around_);
  } else if (around_.activity != part.activity || around_.operation != part.operation) {
    part.activity->end(part.operation);
  }
}

void Operation::note_failure(const std::exception& failure) const noexcept {
  if (phase_around_ == nullptr) ActivityScope::current().activity->note_failure(name_, failure);
}

void Operation::enter_phase(const char* phase) {
  const ActivityScope::Part& part = ActivityScope::current();
  if (part.operation == 0) return;
  part.activity->change(part.operation, [&](Activity::Running& running) { running.shown.phase = phase; });
}

void Operation::expect(std::int64_t files, std::int64_t bytes) {
  const ActivityScope::Part& part = ActivityScope::current();
  if (part.operation == 0) return;
  const double now_seconds = part.activity->clock_.monotonic_seconds();
  part.activity->change(part.operation, [&](Activity::Running& running) {
    ++running.set;
    running.announced = running.shown.files_total = files;
    running.shown.bytes_total = bytes;
    running.shown.files_done = running.shown.bytes_done = 0;
    running.past.assign({{now_seconds, running.received}});
  });
}

void Operation::count_file(const ActivityScope::Part& part, std::int64_t bytes) {
  if (part.operation == 0) return;
  part.activity->change(part.operation, [&](Activity::Running& running) {
    Activity::announce_one(running, bytes);
    ++running.shown.files_done;
    add_bytes(running.shown.bytes_done, bytes);
  });
}

// ---- downloads -------------------------------------------------------------------------------------------

DownloadShown::DownloadShown(const std::string& file_path, std::int64_t expected_bytes, const DownloadBytes& bytes)
    : file_path_(file_path), expected_bytes_(expected_bytes), bytes_(bytes) {
  if (part_.operation != 0) part_.activity->begin_download(*this);
}

DownloadShown::~DownloadShown() {
  if (part_.operation != 0) part_.activity->end_download(*this);
}

void Activity::begin_download(DownloadShown& download) {
  const MutexLock lock(mutex_);
  downloads_.push_back(&download);
  Running* const running = find(download.part_.operation);
  if (running == nullptr) return;
  download.set_ = running->set;
  announce_one(*running, download.expected_bytes_);
}

void Activity::end_download(const DownloadShown& download) {
  const MutexLock lock(mutex_);
  std::erase(downloads_, &download);
  Running* const running = find(download.part_.operation);
  if (running == nullptr) return;  // it has left the download behind
  running->received += download.bytes_.received;
  if (!download.landed_ || download.set_ != running->set) return;
  ++running->shown.files_done;
  add_bytes(running->shown.bytes_done, download.expected_bytes_);
}

FileInFlight DownloadShown::now() const {
  const std::int64_t held = bytes_.held;
  return {file_path_, expected_bytes_ > 0 ? std::min(held, expected_bytes_) : held, expected_bytes_ > 0 ? expected_bytes_ : held};
}

// ---- waits -----------------------------------------------------------------------------------------------

Activity::Id Activity::begin_wait(Id operation, WaitUnderWay wait) {
  const MutexLock lock(mutex_);
  waits_.push_back({++last_id_, operation, std::move(wait)});
  return last_id_;
}

void Activity::end_wait(Id wait) {
  const MutexLock lock(mutex_);
  std::erase_if(waits_, [&](const Waiting& each) { return each.id == wait; });
}

void ServerWaitShown::failed(std::string_view url, int attempt, std::string_view reason, double wait_seconds) {
  const ActivityScope::Part& part = ActivityScope::current();
  if (!part.activity) return;
  const double now = part.activity->clock_.wall_seconds();
  if (since_ == 0) since_ = now;
  pause();
  activity_ = part.activity;
  id_ = activity_->begin_wait(
      part.operation, ServerWait{_sync_endpoint_from_url(url), attempt, std::string(reason), since_, now + std::max(wait_seconds, 0.0)});
}

void ServerWaitShown::pause() {
  if (id_ != 0) activity_->end_wait(std::exchange(id_, 0));
}

ServerWaitShown::~ServerWaitShown() { pause(); }

LockWaitShown::LockWaitShown(std::optional<FileId> locked_file) {
  if (!activity_) return;
  id_ = activity_->begin_wait(ActivityScope::current().operation, LockWait{activity_->clock_.wall_seconds(), locked_file});
}

LockWaitShown::~LockWaitShown() {
  if (id_ != 0) activity_->end_wait(id_);
}

}  // namespace brackenfen::sync
