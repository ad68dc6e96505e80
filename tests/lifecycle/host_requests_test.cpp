// What a host asks of a running manager, and one round of the poll thread.

#include <fstream>
#include <future>

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

const PublishedFile ALPHA{"features/alpha.arrow", "alpha"};
const PublishedFile OLD_PNL{"found_signals/pool/old/signal_is/pnl.arrow", "old", "found_signal_is_pnl"};
const PublishedFile NEW_PNL{"found_signals/pool/new/signal_is/pnl.arrow", "new", "found_signal_is_pnl"};

class HostRequestsTest : public testing::Test, protected SyncSetup {
 protected:
  void set_time(const PublishedFile& file, int seconds) {
    std::filesystem::last_write_time(directory / file.path, std::filesystem::file_time_type() + std::chrono::seconds(seconds));
  }
  std::size_t fetched_manifests() { return requests(MANIFEST_PATH); }
};

TEST_F(HostRequestsTest, refusalsComeInTheirOrder) {
  const auto manager = open();
  const auto request = [&] { return failure_of([&] { return manager->request_for_sync(); }); };
  const auto report = [&](const char* path) { return failure_of([&] { return manager->report_corruption(path), 0; }); };
  const char* const rejected = "StateError: Sync is in era transition mode — request_for_sync rejected";
  const char* const not_running = "StateError: Sync thread is not running. Call start() or acquire() first.";
  manager->_in_transition = true;
  EXPECT_EQ(request(), rejected);
  manager->_in_transition = false;
  directory.write(".transition_lock", "of another process");
  EXPECT_EQ(request(), rejected);
  std::filesystem::remove(directory / ".transition_lock");
  EXPECT_EQ(request(), not_running);
  EXPECT_EQ(report("features/alpha.arrow"), not_running);

  publish(1, {ALPHA});
  static_cast<void>(manager->sync());
  manager->_running = true;
  EXPECT_EQ(report("features/beta.arrow"), "ValueError: File not in manifest: features/beta.arrow");
  EXPECT_THAT(manager->_repair_queue.get(), IsEmpty());
}

TEST_F(HostRequestsTest, answersWhatTheSyncBroughtElseAllNewestFirst) {
  const auto manager = running();
  EXPECT_THAT(manager->_get_found_file_paths(), IsEmpty()) << "without a manifest";
  publish(1, {OLD_PNL, ALPHA});
  EXPECT_THAT(manager->request_for_sync(), ElementsAre(directory / OLD_PNL.path));
  publish(2, {OLD_PNL, NEW_PNL, ALPHA});
  EXPECT_THAT(manager->request_for_sync(), ElementsAre(directory / NEW_PNL.path)) << "the new one alone";

  set_time(OLD_PNL, 100);
  set_time(NEW_PNL, 200);
  EXPECT_THAT(manager->request_for_sync(), ElementsAre(directory / NEW_PNL.path, directory / OLD_PNL.path));
  set_time(OLD_PNL, 200);
  EXPECT_THAT(manager->_get_found_file_paths(), ElementsAre(directory / OLD_PNL.path, directory / NEW_PNL.path)) << "a tie";
  std::filesystem::remove(directory / OLD_PNL.path);
  EXPECT_THAT(manager->_get_found_file_paths(), ElementsAre(directory / NEW_PNL.path));
}

TEST_F(HostRequestsTest, aSecondRequestJoinsTheFirst) {
  publish(1, {OLD_PNL});
  const auto manager = running();
  std::future<std::vector<std::string>> second;
  const auto join_from_another_thread = [&] {
    second = std::async(std::launch::async, [&] { return manager->request_for_sync(); });
    while (manager->request_coalescing().running().use_count() < 3) std::this_thread::yield();  // until it waits
  };
  token->call_once(join_from_another_thread);
  static_cast<void>(manager->request_for_sync());
  EXPECT_THAT(second.get(), ElementsAre(directory / OLD_PNL.path));
  EXPECT_EQ(fetched_manifests(), 1U);

  // A failure is the first one's alone, and waiting ends after 30 seconds.
  server.script(VERSION_PATH, {{.status = 404}});
  server.script(MANIFEST_PATH, {{.status = 404}});
  token->call_once(join_from_another_thread);
  EXPECT_THAT(failure_of([&] { return manager->request_for_sync(); }), StartsWith("SyncError: "));
  EXPECT_THAT(second.get(), ElementsAre(directory / OLD_PNL.path));
  manager->request_coalescing().begin();
  second = std::async(std::launch::async, [&] { return manager->request_for_sync(); });
  while (second.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) clock.advance(COALESCED_WAIT_SECONDS + 1);
  EXPECT_THAT(second.get(), ElementsAre(directory / OLD_PNL.path));
}

TEST_F(HostRequestsTest, ofTwoThatBeganAtOnceTheLaterToEndFails) {
  publish(1, {ALPHA});
  const auto manager = running();
  token->call_once([&] { manager->request_coalescing().end(); });  // as the other one's end does
  EXPECT_EQ(failure_of([&] { return manager->request_for_sync(); }), "AttributeError: 'NoneType' object has no attribute 'set'");
  EXPECT_EQ(manager->request_coalescing().running(), nullptr);

  RequestCoalescing coalescing;
  coalescing.begin();
  const auto replaced = coalescing.running();
  coalescing.begin();
  coalescing.end();
  EXPECT_FALSE(replaced->has_ended());
}

TEST_F(HostRequestsTest, aReportedFileIsMendedByWhoeverComesFirst) {
  publish(1, {ALPHA});
  const auto manager = running();
  manager->_repair_queue.append("unknown");
  manager->_process_repair_queue();  // nothing is known yet, and nothing is asked for
  static_cast<void>(manager->sync());
  directory.write(ALPHA.path, "spoilt");
  manager->_repair_queue.append(ALPHA.path);
  manager->_repair_queue.append(ALPHA.path);
  manager->_poll_once();
  EXPECT_EQ(directory.read(ALPHA.path), ALPHA.content);
  EXPECT_THAT(manager->_repair_queue.get(), IsEmpty());

  std::filesystem::create_directory(directory / ".sync_flock");
  manager->_repair_queue.append(ALPHA.path);
  manager->_process_repair_queue();
  EXPECT_THAT(warnings(), ElementsAre(StartsWith("Background repair failed: [Errno 21]")));
  manager->_repair_queue.append(ALPHA.path);
  EXPECT_THAT(failure_of([&] { return manager->_poll_once(), 0; }), StartsWith("IsADirectoryError: "));
  EXPECT_THAT(manager->_repair_queue.get(), IsEmpty()) << "paths are not queued again";
}

TEST_F(HostRequestsTest, oneThreadRepairsForAllThatWait) {
  const auto repair_threads = [] {
    std::size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream name(task.path() / "comm");
      std::string text;
      if (std::getline(name, text) && text == "bf-repair") ++count;
    }
    return count;
  };
  publish(1, {ALPHA});
  const auto manager = running();
  static_cast<void>(manager->sync());
  const std::size_t before = requests("/data/files/" + ALPHA.path);
  manager->_acquire_flock();
  for (int report = 0; report < 50; ++report) {
    manager->report_corruption(ALPHA.path);
    while (!manager->_repair_queue.get().empty()) std::this_thread::yield();
  }
  while (repair_threads() > 1) std::this_thread::yield();
  manager->_release_flock();
  while (requests("/data/files/" + ALPHA.path) < before + 50) std::this_thread::yield();
  manager->_acquire_flock();  // behind the last repair
  manager->_release_flock();
}

TEST_F(HostRequestsTest, aPollSyncsOnlyWhatIsNewAndOnlyWhenNothingElseRuns) {
  publish(1, {ALPHA});
  const auto manager = open();
  manager->_in_transition = true;
  manager->_poll_once();
  EXPECT_THAT(server.requests(), IsEmpty());
  manager->_in_transition = false;

  token->call_once([&] { manager->_in_transition = true; });  // it begins while the question is on its way
  manager->_poll_once();
  EXPECT_EQ(fetched_manifests(), 0U);
  manager->_in_transition = false;

  token->call_once([&] { std::async(std::launch::async, [&] { manager->_poll_once(); }).get(); });
  static_cast<void>(manager->sync());
  EXPECT_EQ(fetched_manifests(), 1U) << "a poll during a pass does nothing";

  manager->_poll_once();
  EXPECT_EQ(fetched_manifests(), 1U) << "nothing is new";
  publish(2, {ALPHA, NEW_PNL});
  manager->_poll_once();
  EXPECT_EQ(directory.read(NEW_PNL.path), NEW_PNL.content);

  publish(3, {ALPHA});
  std::filesystem::create_directory(directory / ".sync_flock");
  manager->_poll_once();
  EXPECT_THAT(warnings(), ElementsAre(StartsWith("Poll once failed: [Errno 21]")));
  std::filesystem::remove(directory / ".sync_flock");
  manager->_poll_once();
  EXPECT_EQ(manager->get_manifest()->version(), Value(3)) << "the locks are free again";
}

}  // namespace
}  // namespace brackenfen::sync
