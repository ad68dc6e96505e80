#include "sync/transport/backoff.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <set>

#include "sync/base/values/json.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/fault_files.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace testing;

class BackoffTest : public testing::Test {
 protected:
  BackoffTest() {
    seams_.clock = &clock_;
    seams_.files = &files_;
  }
  Document wait(int attempt_index, const std::string& reason) {
    return _emit_sync_backoff_wait(seams_, "http_request", attempt_index, reason, "a.arrow", 0.5F);
  }
  Document progress() { return *parse_json(directory_.read("sync-progress.json")).if_document(); }

  TemporaryDirectory directory_;
  FakeClock clock_;
  FaultFiles files_;
  Seams seams_ = Seams::real();
};

TEST_F(BackoffTest, doublesTheDelayUpToItsCapWithJitter) {
  const std::vector<std::pair<int, double>> rows{{INT_MIN, 0.5}, {-1, 0.5}, {0, 0.5},     {1, 1.0},       {5, 16.0},
                                                 {6, 30.0},      {7, 30.0}, {2000, 30.0}, {INT_MAX, 30.0}};
  for (const auto& [attempt_index, base] : rows) {
    std::set<double> drawn;
    for (int draw = 0; draw < 200; ++draw) drawn.insert(_backoff_delay_seconds(seams_, attempt_index));
    EXPECT_THAT(drawn, Each(AllOf(Ge(0.8 * base), Le(1.2 * base)))) << attempt_index;
    EXPECT_GT(*drawn.rbegin() - *drawn.begin(), 0.2 * base) << "the draws must differ";
  }
}

TEST_F(BackoffTest, sleepsInSlicesUntilTheEndOrAStop) {
  _sleep_for_sync_backoff(seams_, 0.12F);
  EXPECT_THAT(clock_.waits(), AllOf(SizeIs(3), Each(Le(0.05))));
  for (const float none : {0.0F, -1.0F, std::nanf("")}) _sleep_for_sync_backoff(seams_, none);
  EXPECT_THAT(clock_.waits(), SizeIs(3));

  int asked = 0;
  const auto scope = SyncBackoff::builtin().enter_context(
      {.data_dir = {}, .surface = {}, .stop_requested = [&] { return ++asked > 2; }, .host_fields = {}});
  const std::optional<Error> stopped = error_of([&] { _sleep_for_sync_backoff(seams_, HUGE_VALF); });
  ASSERT_TRUE(stopped && stopped->is(error_class::SyncBackoffCancelled));
  EXPECT_FALSE(stopped->is(error_class::SyncError) || stopped->is(error_class::OSError));
  EXPECT_THAT(clock_.waits(), SizeIs(5));
}

TEST_F(BackoffTest, announcesAWaitAndKeepsWhatThePassWrote) {
  const RecordingLog log;
  EXPECT_EQ(wait(0, "http_503"), (Document{{"event_type", "sync_backoff_wait"},
                                           {"surface", "http_request"},
                                           {"attempt", 1},
                                           {"wait_seconds", 0.5},
                                           {"reason", "http_503"},
                                           {"file", "a.arrow"}}));
  EXPECT_THAT(log.events("sync_backoff_wait"), SizeIs(1));
  EXPECT_FALSE(directory_.contains("sync-progress.json")) << "without a data directory nothing is written";

  const auto where =
      SyncBackoff::builtin().enter_context({.data_dir = directory_.path(), .surface = "outer", .stop_requested = {}, .host_fields = {}});
  const auto who =
      SyncBackoff::builtin().enter_context({.data_dir = {}, .surface = "background_worker", .stop_requested = {}, .host_fields = {}});
  directory_.write("sync-progress.json", R"({"phase": "syncing", "version": 3, "files": {"a": {}}, "backoff": {"old": 1}, "other": 1})");
  for (const int attempt : {5, 6}) {  // the second finds what the first one left
    static_cast<void>(wait(attempt - 1, "http_503"));
    const Document shown{{"surface", "background_worker"}, {"attempt", attempt}, {"wait_seconds", 0.5}, {"reason", "transient"}};
    EXPECT_EQ(directory_.read("sync-progress.json"), write_json(Document{{"phase", "backoff"},
                                                                         {"updated_at", clock_.wall_seconds()},
                                                                         {"backoff", shown},
                                                                         {"version", 3},
                                                                         {"files", Document{{"a", Document()}}}},
                                                                JsonForm::SortedKeys));
  }
  for (const char* broken : {"", "[]", "{\"phase\"", "\xff"}) {
    directory_.write("sync-progress.json", broken);
    static_cast<void>(wait(0, ""));
    EXPECT_THAT(progress(), SizeIs(3)) << broken;
  }
  files_.fail(FaultFiles::Call::WriteNew, 1, ENOSPC);
  EXPECT_THROW(static_cast<void>(wait(0, "http_503")), Error);
  std::filesystem::remove_all(directory_.path());
  EXPECT_THROW(static_cast<void>(wait(0, "http_503")), Error);
  EXPECT_FALSE(std::filesystem::exists(directory_.path())) << "a directory that was removed stays so";
}

}  // namespace
}  // namespace brackenfen::sync
