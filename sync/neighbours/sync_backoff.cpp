#include "sync/neighbours/sync_backoff.hpp"

#include <sys/random.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "sync/base/threads/snapshot.hpp"
#include "sync/neighbours/inherited_backoff.hpp"

namespace brackenfen::sync {
namespace {

constexpr double FIRST_DELAY_SECONDS = 0.5;
constexpr double LONGEST_DELAY_SECONDS = 30.0;
constexpr int DOUBLINGS_TO_THE_CAP = 6;
constexpr double JITTER = 0.2;
constexpr std::int64_t SLICE_NS = 50'000'000;
/// A wait of any length that a host asks for stays within the clock's range.
constexpr double LONGEST_SLEEP_SECONDS = 1e9;

constexpr const ErrorClass* CANCELLED_PARENTS[] = {&error_class::Exception};

/// From 0 to below 1. Asked of the system, so that forked processes do not draw alike.
double random_fraction() {
  std::uint64_t bits = 0;
  if (::getrandom(&bits, sizeof bits, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bits)) return 0.5;
  return static_cast<double>(bits >> 11U) * 0x1p-53;
}

/// A context in force, until it is left: by any thread. Shared by whoever entered it and the thread it was entered on,
/// which drops it when it next looks.
class EnteredContext {
 public:
  explicit EnteredContext(BackoffContext context) : context_(std::move(context)) {}
  /// Absent once it was left.
  [[nodiscard]] std::optional<BackoffContext> get() const { return context_.get(); }
  /// Drops what it holds of the host's here and now, since the thread it was entered on may never look again.
  void leave() { context_.set(std::nullopt); }

 private:
  Guarded<std::optional<BackoffContext>> context_;
};

/// Those of the running thread, the innermost last.
using EnteredContexts = std::vector<std::shared_ptr<const EnteredContext>>;

// A plain pointer, so that a thread in its last steps can still ask. Freed as the thread ends.
constinit thread_local EnteredContexts* entered_contexts = nullptr;

EnteredContexts& entered_here() {
  struct Owner {
    EnteredContexts contexts;
    Owner() { entered_contexts = &contexts; }
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    ~Owner() { entered_contexts = nullptr; }
  };
  static thread_local Owner owner;
  return owner.contexts;
}

constinit std::atomic<InheritedContext> inherited_context{nullptr};

/// Leaves its context at its end.
class ContextScope {
 public:
  explicit ContextScope(BackoffContext context) : entered_(std::make_shared<EnteredContext>(over_current(std::move(context)))) {
    entered_here().push_back(entered_);
  }
  ContextScope(const ContextScope&) = delete;
  ContextScope& operator=(const ContextScope&) = delete;
  ~ContextScope() {
    entered_->leave();
    if (entered_contexts != nullptr) std::erase(*entered_contexts, entered_);
  }

  [[nodiscard]] static BackoffContext current() {
    while (entered_contexts != nullptr && !entered_contexts->empty()) {
      if (std::optional<BackoffContext> context = entered_contexts->back()->get()) return *std::move(context);
      entered_contexts->pop_back();
    }
    const InheritedContext inherited = inherited_context.load();
    return inherited != nullptr ? inherited() : BackoffContext{};
  }

 private:
  /// What an inner scope leaves open stays as it is outside: naming a surface must not end the host's power to stop.
  static BackoffContext over_current(BackoffContext context) {
    BackoffContext outer = current();
    if (context.data_dir.empty()) context.data_dir = std::move(outer.data_dir);
    if (context.surface.empty()) context.surface = std::move(outer.surface);
    if (!context.stop_requested) context.stop_requested = std::move(outer.stop_requested);
    if (!context.host_fields) context.host_fields = std::move(outer.host_fields);
    return context;
  }

  const std::shared_ptr<EnteredContext> entered_;
};

class BuiltinSyncBackoff final : public SyncBackoff {
 public:
  double delay_seconds(int attempt_index) override {
    const double doubled = std::ldexp(FIRST_DELAY_SECONDS, std::clamp(attempt_index, 0, DOUBLINGS_TO_THE_CAP));
    return std::min(doubled, LONGEST_DELAY_SECONDS) * (1.0 - JITTER + 2.0 * JITTER * random_fraction());
  }

  bool sleep(double wait_seconds, Clock& clock, const std::function<bool()>& stop_requested) override {
    const double bounded = wait_seconds > 0.0 ? std::min(wait_seconds, LONGEST_SLEEP_SECONDS) : 0.0;
    const std::int64_t end_ns = clock.monotonic_ns() + std::llround(bounded * 1e9);
    for (;;) {
      if (stop_requested && stop_requested()) return false;
      const std::int64_t remaining_ns = end_ns - clock.monotonic_ns();
      if (remaining_ns <= 0) return true;
      clock.sleep(static_cast<double>(std::min(remaining_ns, SLICE_NS)) * 1e-9);
    }
  }

  BackoffContext current_context() override { return ContextScope::current(); }
  std::shared_ptr<void> enter_context(BackoffContext context) override { return std::make_shared<ContextScope>(std::move(context)); }

  Document sync_backoff_event_fields(std::string_view surface, int attempt, double wait_seconds, std::string_view reason,
                                     std::string_view file_path) override {
    return {{"event_type", "sync_backoff_wait"}, {"surface", surface}, {"attempt", attempt},
            {"wait_seconds", wait_seconds},      {"reason", reason},   {"file", file_path}};
  }

  Error cancelled_error() override { return Error(error_class::SyncBackoffCancelled, ""); }
};

}  // namespace

namespace error_class {
constinit const ErrorClass SyncBackoffCancelled("SyncBackoffCancelled", CANCELLED_PARENTS);
}  // namespace error_class

SyncBackoff& SyncBackoff::builtin() {
  static SyncBackoff& backoff = *new BuiltinSyncBackoff;
  return backoff;
}

void set_inherited_context(InheritedContext inherited) noexcept { inherited_context.store(inherited); }

}  // namespace brackenfen::sync
