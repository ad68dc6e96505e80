// Every wait ends when it is interrupted: by the token of the thread's operation, or by the host.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "sync/base/clock.hpp"
#include "sync/base/interrupt.hpp"
#include "sync/base/mutex.hpp"

namespace brackenfen::sync {
namespace {

bool is_interrupted() {
  try {
    check_interrupt();
    return false;
  } catch (const Interrupted&) {
    return true;
  }
}

/// Interrupts the thread that asks for the n-th time.
class InterruptingHost : public InterruptSource {
 public:
  explicit InterruptingHost(int at_call) : remaining_(at_call), previous_(set_interrupt_source(this)) {}
  ~InterruptingHost() override { set_interrupt_source(previous_); }
  void check() override {
    if (--remaining_ == 0) throw Interrupted{};
  }

 private:
  std::atomic<int> remaining_;
  InterruptSource* previous_;
};

TEST(Interrupt, theInnermostTokenOfTheThreadCounts) {
  const auto outer = std::make_shared<InterruptToken>();
  const auto inner = std::make_shared<InterruptToken>();
  EXPECT_FALSE(is_interrupted());
  {
    const InterruptScope outer_scope(outer);
    outer->trip();
    EXPECT_TRUE(is_interrupted());
    {
      const InterruptScope inner_scope(inner);
      EXPECT_FALSE(is_interrupted());
    }
    EXPECT_TRUE(is_interrupted());
    EXPECT_FALSE(std::async(std::launch::async, is_interrupted).get());
  }
  EXPECT_FALSE(is_interrupted());
}

TEST(Clock, sleepEndsWhenTheHostSaysSo) {
  Clock& clock = Clock::real();
  const double start = clock.monotonic_seconds();
  {
    const InterruptingHost host(2);
    EXPECT_THROW(clock.sleep(3600), Interrupted);
  }
  EXPECT_LT(clock.monotonic_seconds() - start, 60);
  clock.sleep(0);
  clock.sleep(-1);
  const double before = clock.monotonic_seconds();
  clock.sleep(0.06);
  EXPECT_GE(clock.monotonic_seconds() - before, 0.06);
}

TEST(WorkMutex, lockingEndsWhenTheOperationIsInterrupted) NO_THREAD_SAFETY_ANALYSIS {
  WorkMutex mutex;
  const WorkLock held(mutex);
  EXPECT_FALSE(mutex.try_lock());
  const auto token = std::make_shared<InterruptToken>();
  auto waiter = std::async(std::launch::async, [&]() NO_THREAD_SAFETY_ANALYSIS {
    const InterruptScope scope(token);
    EXPECT_THROW(mutex.lock(), Interrupted);
  });
  token->trip();
  waiter.get();
}

}  // namespace
}  // namespace brackenfen::sync
