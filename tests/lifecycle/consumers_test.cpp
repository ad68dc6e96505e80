// Starting, counting and stopping: what state each event leads to, and stopping from a callback on each thread.

#include <atomic>
#include <future>
#include <sstream>

#include "sync/base/threads/worker_thread.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

const PublishedFile ALPHA{"features/alpha.arrow", "alpha"};
const PublishedFile BETA{"features/beta.arrow", "beta"};

class ConsumersTest : public testing::Test, protected SyncSetup {
 protected:
  ConsumersTest() { publish(1, {ALPHA, BETA}); }
  ~ConsumersTest() override {
    if (manager) manager->stop();
    EXPECT_TRUE(wait_for_worker_threads(std::chrono::seconds(30)));
  }
  bool registered() { return SyncManager::_instances().count(directory.path()) > 0; }
  std::string count_file() {
    const std::string path = directory / ".consumer_count";
    return std::filesystem::exists(path) ? read_file(path) : "";
  }
  void run(const std::string& event) {
    if (event == "acquire") manager->acquire();
    if (event == "release") manager->release();
    if (event == "start") manager->start();
    if (event == "stop") manager->stop();
  }

  std::shared_ptr<SyncManager> manager;
};

TEST_F(ConsumersTest, theWatcherKnowsOfATransitionThatNeverCameToItsEnd) {
  directory.write("manifest.json", R"({"era_number": 8, "files": {}})");
  const std::pair<const char*, int> rows[] = {
      {R"({"era_number": 7})", 7}, {R"({"era_number": 8})", 8}, {R"({"era_number": null})", 8}, {R"({"era_number": 7)", 8}};
  for (const auto& [note, last_known] : rows) {
    directory.write(".told_era", note);
    manager = open();
    manager->acquire();
    EXPECT_EQ(manager->_era_thread.get()->_last_known_era_id.get(), Value(last_known)) << note;
    manager->stop();
  }
}

TEST_F(ConsumersTest, eachEventLeadsToItsState) {
  struct Row {
    const char* events;
    bool running, consumer_counted;
    std::int64_t count;
    const char* file;  ///< empty where it was never written
    bool registered = true;
    const char* failure = "";
    const char* file_before = nullptr;
  };
  const Row rows[] = {
      {"acquire", true, true, 1, "1"},
      {"acquire acquire", true, true, 2, "2"},
      {"acquire acquire release", true, true, 1, "1"},
      {"acquire release", false, false, 0, "0", false},
      {"acquire release release", false, false, 0, "0", false},
      {"acquire release acquire", true, true, 1, "1", false},
      {"acquire start", true, true, 1, "1", true, "StateError: SyncManager already running"},
      {"acquire stop", false, false, 1, "1"},
      {"acquire stop acquire", true, true, 2, "2"},
      {"release", false, false, 0, ""},
      {"stop", false, false, 0, ""},
      {"start", true, false, 0, ""},
      {"start start", true, false, 0, "", true, "StateError: SyncManager already running"},
      {"start stop", false, false, 0, ""},
      {"start acquire", true, false, 1, "1"},
      {"start acquire release", false, false, 0, "0", false},
      // A count that was left behind keeps the threads up.
      {"acquire", true, true, 4, "4", true, "", "3"},
      {"acquire release", true, true, 3, "3", true, "", "3"},
      {"release", false, false, -3, "-3", true, "", "-3"},
      {"release acquire", true, true, -2, "-2", true, "", "-3"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.events);
    std::filesystem::remove(directory / ".consumer_count");
    if (row.file_before) directory.write(".consumer_count", row.file_before);
    manager = SyncManager::get_or_create(options());
    std::string failure;
    std::istringstream events(row.events);
    for (std::string event; events >> event;) failure = failure_of([&] { return run(event), 0; });
    EXPECT_EQ(failure, row.failure);
    EXPECT_EQ(manager->_running, row.running);
    EXPECT_EQ(manager->is_alive(), row.running);
    EXPECT_EQ(manager->_consumer_lifecycle_started, row.consumer_counted);
    const auto era_thread = manager->_era_thread.get();
    EXPECT_EQ(era_thread && era_thread->is_alive(), row.consumer_counted);
    EXPECT_EQ(manager->consumer_count(), row.count);
    EXPECT_EQ(count_file(), row.file);
    EXPECT_EQ(registered(), row.registered);
    manager->stop();
    manager.reset();
    ASSERT_TRUE(wait_for_worker_threads(std::chrono::seconds(30)));  // a download worker in its last steps shares in it
  }
}

TEST_F(ConsumersTest, aDirectoryThatCannotBeWrittenDoesNotStopTheLifecycle) {
  std::filesystem::create_directory(directory / ".consumer_count");
  manager = SyncManager::get_or_create(options());
  manager->acquire();
  EXPECT_TRUE(manager->is_alive());
  manager->release();
  EXPECT_FALSE(registered());
  EXPECT_THAT(log.messages(LogLevel::Warning),
              ElementsAre(StartsWith("Failed to read consumer count: "), StartsWith("Failed to persist consumer count: "),
                          StartsWith("Failed to persist consumer count: ")));
}

TEST_F(ConsumersTest, aStopWaitsForATransitionForTenSecondsAtMost) {
  manager = open();
  manager->start();
  manager->_in_transition = true;
  manager->stop();
  EXPECT_THAT(clock.waits(), SizeIs(100));
  EXPECT_TRUE(manager->_in_transition);
  EXPECT_FALSE(manager->_running);
}

TEST_F(ConsumersTest, anInterruptedReleaseLeavesAStoppedManager) {
  manager = SyncManager::get_or_create(options());
  std::promise<void> inside, go_on;
  token->call_once([&] {
    inside.set_value();
    go_on.get_future().get();
  });
  auto pass = std::async(std::launch::async, [&] { static_cast<void>(manager->sync()); });
  inside.get_future().get();
  manager->acquire();
  const auto thread = manager->_sync_thread.get();
  const auto interrupt = std::make_shared<InterruptToken>();
  auto release = std::async(std::launch::async, [&] {
    const InterruptScope scope(interrupt);
    EXPECT_THROW(manager->release(), Interrupted);
  });
  interrupt->trip();
  release.get();
  EXPECT_EQ(manager->consumer_count(), 0);
  EXPECT_FALSE(manager->_running);
  EXPECT_FALSE(manager->is_alive());
  EXPECT_FALSE(registered());
  go_on.set_value();
  pass.get();
  manager->stop();
  thread->join(Clock::real(), 30.0);
  EXPECT_FALSE(thread->is_alive());
}

TEST_F(ConsumersTest, aCallbackMayReleaseTheLastConsumerOnWhateverThreadItRuns) {
  std::atomic<bool> landed{true};
  std::promise<void> released;
  const auto release = [&] {
    manager->release();
    released.set_value();
  };
  guard = std::make_shared<CallingGuard>([&](auto...) {
    if (!landed.exchange(true)) release();
  });
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"the caller's, in a pass", [&] { token->call_once(release), static_cast<void>(manager->sync()); }},
      {"a download worker", [&] { landed = false, static_cast<void>(manager->sync()); }},
      {"the poll thread", [&] { token->call_once(release), manager->_in_transition = false; }},
      {"a repair thread",
       [&] {
         static_cast<void>(manager->sync());
         token->call_once(release);
         manager->report_corruption(ALPHA.path);
       }},
  };
  for (const auto& [thread, make_it_run] : rows) {
    SCOPED_TRACE(thread);
    landed = true;
    released = {};
    std::filesystem::remove(directory / "manifest.json");
    for (const PublishedFile& file : {ALPHA, BETA}) std::filesystem::remove(directory / file.path);
    manager = SyncManager::get_or_create(options());
    manager->_in_transition = true;  // keeps the poll thread out of the way
    manager->acquire();
    make_it_run();
    const std::future<void> done = released.get_future();
    while (done.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) clock.advance(10);
    EXPECT_FALSE(manager->_running);
    EXPECT_FALSE(registered());
    ASSERT_TRUE(wait_for_worker_threads(std::chrono::seconds(30)));
  }
}

TEST_F(ConsumersTest, aCallbackThatWouldWaitForItsOwnPassIsRefused) {
  manager = SyncManager::get_or_create(options());
  std::string inside;
  // A release on another thread waits for this pass, or for the poll thread's repair, under the registry's lock.
  for (const bool in_repair : {false, true}) {
    std::promise<std::future<void>> releasing;
    token->call_once([&] {
      auto release = std::async(std::launch::async, [&] { manager->release(); });
      do inside = failure_of([&] { return SyncManager::get_or_create(options()); });
      while (inside.empty());
      manager->release();  // one too many does nothing, and waits for nothing
      releasing.set_value(std::move(release));
    });
    if (in_repair) manager->_repair_queue.append(ALPHA.path);
    manager->acquire();
    if (!in_repair) static_cast<void>(manager->sync());
    releasing.get_future().get().get();
    EXPECT_THAT(inside, StartsWith("StateError: "));
  }
}

}  // namespace
}  // namespace brackenfen::sync
