// What outlives a lack of memory: each thread of the library, the flags of one that could not be started, and the host.

#include <cstring>
#include <thread>

#include "sync/base/threads/worker_thread.hpp"
#include "tests/support/failing_memory.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

struct FixedEra : EraManager {
  std::optional<Value> manifest_era() override { return Value(7); }
  void trigger_era_transition(const Value&, const SearchesFn&, const SearchesFn&) override {}
};

class FailuresTest : public testing::Test, protected SyncSetup {
 protected:
  FailuresTest() { publish(1, published()); }
  ~FailuresTest() override {
    if (manager) manager->stop();
    EXPECT_TRUE(wait_for_worker_threads(std::chrono::seconds(30)));
  }
  static std::vector<PublishedFile> published() {
    std::vector<PublishedFile> many;
    for (int number = 0; number < 200; ++number) many.push_back({"features/" + std::to_string(number) + ".arrow", "content"});
    return many;
  }
  void wait_until(const std::function<bool()>& holds) {
    while (!holds()) {
      clock.advance(10.0);  // past every pause of a thread
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  /// Those that come back at the same time included: the poll thread may be fetching what has gone already.
  void remove_files() {
    std::error_code failure;
    do std::filesystem::remove_all(directory / "features", failure);
    while (failure);
  }

  std::shared_ptr<SyncManager> manager;
};

TEST_F(FailuresTest, aThreadOutlivesALackOfMemory) {
  manager = open();
  const auto asks_again = [&](const char* path) {
    const std::size_t before = requests(path);
    wait_until([&] { return requests(path) > before; });
  };
  struct Row {
    const char* thread;
    std::function<void()> run;     ///< while its memory has run out
    std::function<void()> run_on;  ///< when there is some again
    bool may_miss = false;         ///< another thread may do the work: it is run until its own one has failed
  };
  const Row rows[] = {
      {"bf-poll", [&] { manager->acquire(); }, [&] { asks_again(VERSION_PATH); }},
      {"bf-era", [] {}, [&] { asks_again("/era/current"); }},
      {"bf-repair", [&] { manager->report_corruption(published()[0].path); }, [] {}, true},
      {"bf-sync",
       [&] {
         remove_files();
         EXPECT_THROW(static_cast<void>(manager->sync()), std::bad_alloc);
       },
       [&] {
         static_cast<void>(manager->sync());
         EXPECT_TRUE(manager->verify().valid);
       }},
      {"bf-check", [&] { EXPECT_THROW(while (true) static_cast<void>(manager->verify()), std::bad_alloc); },
       [&] { EXPECT_TRUE(manager->verify().valid); }},
      {"brackenfen-sync", [&] { manager->_schedule_cleanup_old_eras(true); },
       [&] { manager->_cleanup_thread()->join(Clock::real(), 30.0); }},
  };
  std::filesystem::create_directory(directory / "era_3");
  static_cast<void>(manager->sync());
  for (const Row& row : rows) {
    SCOPED_TRACE(row.thread);
    {
      const FailingMemory memory(row.thread);
      row.run();
      wait_until([&] {
        if (row.may_miss && !memory.has_failed()) row.run();
        return memory.has_failed();
      });
    }
    row.run_on();
  }
  EXPECT_TRUE(manager->is_alive());
}

TEST_F(FailuresTest, aLogThatRaisesTakesNotThePlaceOfWhatEndedTheWork) {
  const PublishedFile lost{"features/us/signal_is/lost.arrow", "lost"};
  manager = open();
  publish(1, {lost});
  static_cast<void>(manager->sync());
  remove_files();
  manager->_running = true;
  log.on_write = [](const LogRecord& record) {
    if (std::string_view(record.format).starts_with("best-effort")) throw ValueError("no log");
  };
  for (const auto& [status, failure] : {std::pair{404, "PermanentDownloadError: "}, std::pair{200, "ValueError: no log"}}) {
    server.script("/data/files/" + lost.path, {{.status = status, .body = lost.content}});
    files.fail(FaultFiles::Call::Unlink, 1, EIO);
    EXPECT_EQ(failure_of([&] { return manager->request_feature_files_for_sync({"lost"}); }).substr(0, std::strlen(failure)), failure);
  }
  manager->_running = false;
}

TEST_F(FailuresTest, whatCouldNotBeStartedIsStartedByTheNextCall) {
  manager = open();
  static_cast<void>(manager->sync());
  struct Row {
    std::function<void()> start;
    std::function<bool()> is_up;
  };
  const auto watcher = std::make_shared<EraThread>(EraThread::Options{.server_url = server.url(),
                                                                      .get_token = token_source,
                                                                      .sync_manager = std::make_shared<FixedEra>(),
                                                                      .kill_searches_fn = {},
                                                                      .restart_searches_fn = {},
                                                                      .seams = seams()});
  const Row rows[] = {
      {[&] { manager->acquire(); },
       [&] {
         const auto era_thread = manager->_era_thread.get();
         EXPECT_EQ(manager->_running, manager->is_alive());
         EXPECT_EQ(manager->_consumer_lifecycle_started, manager->is_alive());
         return manager->is_alive() && era_thread && era_thread->is_alive();
       }},
      {[&] { watcher->start(); }, [&] { return watcher->is_alive(); }},
  };
  for (const Row& row : rows) {
    for (int nth = 1; !row.is_up(); ++nth) {
      SCOPED_TRACE(nth);
      const FailingMemory memory(nth);
      try {
        row.start();
      } catch (const std::bad_alloc&) {
        EXPECT_FALSE(row.is_up());
      }
    }
  }
  watcher->stop();
}

}  // namespace
}  // namespace brackenfen::sync
