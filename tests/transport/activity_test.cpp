#include "sync/transport/activity.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <tuple>

#include "sync/base/error.hpp"
#include "tests/support/fake_clock.hpp"

namespace brackenfen::sync {
namespace {

class ActivityTest : public testing::Test {
 protected:
  [[nodiscard]] Progress now() const { return activity_->progress().value_or(Progress{}); }
  [[nodiscard]] std::tuple<std::int64_t, std::int64_t, std::int64_t, std::int64_t> counts() const {
    const Progress seen = now();
    return {seen.files_done, seen.files_total, seen.bytes_done, seen.bytes_total};
  }

  FakeClock clock_;
  const std::shared_ptr<Activity> activity_ = std::make_shared<Activity>(clock_);
  const std::shared_ptr<Activity> another_ = std::make_shared<Activity>(clock_);
};

TEST_F(ActivityTest, showsTheOutermostOperationWithTheInnermostPhase) {
  const Operation waiting(another_, operation::SYNC, phase::WAITING);
  const Operation outer(activity_, operation::REPAIR, phase::DOWNLOADING);
  {
    const Operation inner(activity_, operation::SYNC, phase::MANIFEST);
    Operation::enter_phase(phase::COMMITTING);
    inner.note_failure(SyncError("the outer one goes on"));
    EXPECT_EQ(now().operation, operation::REPAIR);
    EXPECT_EQ(now().phase, phase::COMMITTING);
  }
  EXPECT_EQ(now().phase, phase::DOWNLOADING);
  EXPECT_FALSE(activity_->standing().last_error);
  // One that waits for its turn gives way to the one at work.
  EXPECT_EQ(another_->progress()->phase, phase::WAITING);
  std::thread([&] {
    const Operation at_work(another_, operation::TRANSITION, phase::PROMOTING);
    EXPECT_EQ(another_->progress()->operation, operation::TRANSITION);
  }).join();
  EXPECT_EQ(another_->progress()->operation, operation::SYNC);
}

TEST_F(ActivityTest, countsNeverMoreThanIsToCome) {
  const Operation operation(activity_, operation::SYNC, phase::DOWNLOADING);
  const std::string path = "features/a.arrow";
  DownloadBytes bytes;
  Operation::expect(2, 100);
  {
    DownloadShown download(path, 60, bytes);
    bytes.held = 80;  // the server's file is longer than the manifest says
    EXPECT_EQ(counts(), std::tuple(0, 2, 60, 100));
    download.landed();
  }
  EXPECT_EQ(counts(), std::tuple(1, 2, 60, 100));
  Operation::count_file(40);
  const DownloadShown of_no_set(path, 7, bytes), without_size(path, 0, bytes);
  EXPECT_EQ(counts(), std::tuple(2, 4, 107, 107)) << "documents behind the set add themselves";
  EXPECT_EQ(now().files_in_flight.back().bytes_total, 80);
  std::optional<DownloadShown> of_an_earlier_set(std::in_place, path, 60, bytes);
  of_an_earlier_set->landed();
  Operation::expect(1, 50);
  EXPECT_EQ(counts(), std::tuple(0, 1, 0, 50));
  of_an_earlier_set.reset();
  EXPECT_EQ(counts(), std::tuple(0, 1, 0, 50));
  Operation::expect(1, std::numeric_limits<std::int64_t>::max());
  Operation::count_file(std::numeric_limits<std::int64_t>::max());
  Operation::count_file(1);
  EXPECT_LE(now().bytes_done, now().bytes_total);
}

TEST_F(ActivityTest, aThreadThatEndsInAForkedChildLooksAtNoOther) {
  std::optional<BackgroundScope> forking(std::in_place, activity_, "forking");
  std::promise<void*> begun;
  std::promise<void> over;
  std::thread other([&] {
    BackgroundScope scope(activity_, "other");
    begun.set_value(&scope);
    over.get_future().wait();
  });
  void* const others_stack = begun.get_future().get();
  const pid_t child = ::fork();
  if (child == 0) {
    std::memset(others_stack, 0x55, sizeof(BackgroundScope));  // as by a thread of the child
    forking.reset();
    ::_exit(0);
  }
  int status = 1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  over.set_value();
  other.join();
}

TEST_F(ActivityTest, theRateIsThatOfTheLastSecondsOverTheNetwork) {
  const Operation operation(activity_, operation::SYNC, phase::DOWNLOADING);
  const std::string path = "features/a.arrow";
  DownloadBytes bytes;
  bytes.held = 1'000'000;  // resumed
  Operation::expect(1, 2'000'000);
  const DownloadShown download(path, 2'000'000, bytes);
  for (const auto& [seconds, received, rate] :
       {std::tuple(2, 1000, 500.0), std::tuple(8, 0, 0.0), std::tuple(1, 0, 0.0), std::tuple(4, 50, 10.0)}) {
    clock_.advance(static_cast<double>(seconds));
    bytes.received += received;
    EXPECT_DOUBLE_EQ(now().bytes_per_second, rate);
  }
}

}  // namespace
}  // namespace brackenfen::sync
