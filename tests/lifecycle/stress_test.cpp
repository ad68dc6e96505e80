// Many threads and two managers on one directory, as two processes would share it: nothing deadlocks, no error comes
// that has no business there, and what is left verifies.
#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <thread>

#include "sync/base/threads/worker_thread.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

constexpr int ROUNDS = 12;

TEST(LifecycleStress, manyThreadsAndTwoManagersEndWithADirectoryThatVerifies) {
  SyncSetup setup;
  std::vector<PublishedFile> files;
  for (int number = 0; number < 6; ++number) files.push_back({"features/" + std::to_string(number), std::string(2000, 'x')});
  files.push_back({"found_signals/pool/one/signal_is/pnl.arrow", "pnl", "found_signal_is_pnl"});
  setup.publish(1, files);
  SyncManager::Options options = setup.options();
  options.seams = Seams::real();
  options.poll_interval_s = 0.01;

  std::atomic<int> unexpected{0};
  const auto tolerating = [&](const std::function<void()>& action) {
    try {
      action();
    } catch (const Error& error) {
      // A request comes while the other threads have the manager stopped, or ends after another that began with it.
      if (error.is(error_class::StateError) || error.is(error_class::AttributeError)) return;
      ADD_FAILURE() << error.error_class().name() << ": " << error.text();
      ++unexpected;
    }
  };
  const auto worker = [&](int number) {
    for (int round = 0; round < ROUNDS; ++round) {
      const auto manager = number % 2 == 0 ? SyncManager::get_or_create(options) : std::make_shared<SyncManager>(options);
      manager->acquire();
      tolerating([&] { static_cast<void>(manager->sync()); });
      if (round % 4 == number % 4) setup.directory.write(files[static_cast<std::size_t>(round % 6)].path, "spoilt");
      tolerating([&] { manager->report_corruption(files[0].path); });
      tolerating([&] { static_cast<void>(manager->request_for_sync()); });
      tolerating([&] { static_cast<void>(manager->repair({files[1].path, "unknown"})); });
      if (round % 5 == 0) manager->stop();
      manager->release();
      if (number % 2 == 1) manager->stop();  // the count it was opened with may have been the other's
    }
  };
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) threads.emplace_back(worker, number);
  for (std::thread& thread : threads) thread.join();
  for (const auto& [directory, manager] : SyncManager::_instances()) manager->stop();
  EXPECT_TRUE(wait_for_worker_threads(std::chrono::seconds(30)));  // repairs that were reported last need the server
  EXPECT_EQ(unexpected, 0);

  const auto manager = std::make_shared<SyncManager>(options);
  std::vector<std::string> paths;
  for (const PublishedFile& file : files) paths.push_back(file.path);
  static_cast<void>(manager->repair(paths));
  EXPECT_TRUE(manager->verify().valid);
  EXPECT_FALSE(setup.directory.contains(".sync_flock"));
}

}  // namespace
}  // namespace brackenfen::sync
