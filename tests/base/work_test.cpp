// Whose interrupt counts, and that nothing waits for itself, on whatever thread or in a child.
#include "sync/base/threads/work.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "sync/base/threads/background_thread.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/threads/snapshot.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/fake_clock.hpp"

namespace brackenfen::sync {
namespace {

bool is_interrupted() {
  try {
    static_cast<void>(Event().wait(Clock::real(), 0));  // takes no time, but asks
    return false;
  } catch (const Interrupted&) {
    return true;
  }
}

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

TEST(Work, aLockIsRefusedToTheWorkThatHoldsIt) NO_THREAD_SAFETY_ANALYSIS {
  WorkMutex mutex;
  const auto on_a_worker = [&](const ThreadWork& work) {
    return std::async(std::launch::async, [&] { return ThreadWork::current() = work, mutex.held_by_this_work(); }).get();
  };
  const ThreadWork before = ThreadWork::current();
  mutex.lock();
  EXPECT_TRUE(mutex.held_by_this_work());
  EXPECT_THROW(mutex.lock(), WouldWaitForItself);
  const ThreadWork first = ThreadWork::current();
  EXPECT_TRUE(on_a_worker(first));
  EXPECT_FALSE(on_a_worker(before));
  mutex.unlock();
  const WorkLock next(mutex);
  EXPECT_FALSE(on_a_worker(first)) << "a worker that was left behind is no part of the next work";
}

TEST(Work, aCircleOfWaitsIsBrokenByWhoeverIsNotStopping) NO_THREAD_SAFETY_ANALYSIS {
  WorkMutex registry, consumers, pass;
  pass.lock();
  // A stop waits for the pass under a lock, another one waits for that lock under a second one.
  auto stopping = std::async(std::launch::async, [&] {
    const WorkLock held(consumers);
    pass.pass_through();
  });
  while (consumers.try_lock()) consumers.unlock();
  auto releasing = std::async(std::launch::async, [&] {
    const WorkLock held(registry);
    const WorkLock second(consumers, Patience::Long);
  });
  while (registry.try_lock()) registry.unlock();
  EXPECT_THROW(registry.lock(), WouldWaitForItself);
  pass.unlock();
  stopping.get();
  releasing.get();
  const WorkLock free_again(registry);
}

TEST(Work, aCircleOfStopsIsBrokenInTheEnd) NO_THREAD_SAFETY_ANALYSIS {
  WorkMutex first, second;
  const auto refused = [](WorkMutex& held, WorkMutex& wanted, std::promise<void>& holds, std::future<void> other_holds) {
    const WorkLock work(held);
    holds.set_value();
    other_holds.get();
    try {
      wanted.pass_through();
      return false;
    } catch (const WouldWaitForItself&) {
      return true;
    }
  };
  std::promise<void> first_held, second_held;
  auto one = std::async(std::launch::async, [&] { return refused(first, second, first_held, second_held.get_future()); });
  const bool two = refused(second, first, second_held, first_held.get_future());
  EXPECT_TRUE(one.get() || two);
}

TEST(BackgroundThread, isNotJoinedByWhatItWaitsFor) NO_THREAD_SAFETY_ANALYSIS {
  for (const Patience patience : {Patience::None, Patience::Long}) {
    FakeClock clock;  // stands still: the join does not end by time
    WorkMutex mutex;
    mutex.lock();
    const auto thread = std::make_shared<BackgroundThread>();
    thread->start("name", [&] { failure_of([&] { return mutex.pass_through(), 0; }); });
    thread->join(clock, 30.0, patience);
    mutex.unlock();
    thread->join(clock, 30.0);
  }
}

TEST(Fork, findsLeafLocksFreeAndWhatTheyGuardWhole) {
  Snapshot<const std::string> shared;
  std::atomic<bool> over{false};
  const auto hammer = std::async(std::launch::async, [&] {
    while (!over) shared.set(std::make_shared<const std::string>(100, 'x'));
  });
  while (!shared.get()) continue;
  for (int fork = 0; fork < 200; ++fork) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(10);  // ends one that waits for ever
      ::_exit(*shared.get() == std::string(100, 'x') ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  over = true;
}

}  // namespace
}  // namespace brackenfen::sync
