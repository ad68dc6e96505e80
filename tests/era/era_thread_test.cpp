#include "sync/era/era_thread.hpp"

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

struct FixedEra : EraManager {
  std::optional<Value> era;
  std::optional<Value> manifest_era() override { return era; }
  void trigger_era_transition(const Value&, const SearchesFn&, const SearchesFn&) override {}
};

class EraThreadTest : public testing::Test, protected SyncSetup {
 protected:
  std::shared_ptr<FixedEra> manager = std::make_shared<FixedEra>();
  std::shared_ptr<EraThread> watcher(std::string url) {
    return std::make_shared<EraThread>(EraThread::Options{.server_url = std::move(url),
                                                          .get_token = token_source,
                                                          .sync_manager = manager,
                                                          .kill_searches_fn = nullptr,
                                                          .restart_searches_fn = nullptr,
                                                          .seams = seams()});
  }
};

TEST_F(EraThreadTest, startsOnceUntilItIsStopped) {
  const auto era_thread = watcher(server.url());
  era_thread->stop();
  EXPECT_FALSE(era_thread->is_alive());
  era_thread->start();
  EXPECT_TRUE(era_thread->is_alive());
  EXPECT_TRUE(era_thread->_last_known_era_id.get().is_null());
  EXPECT_EQ(failure_of([&] { return era_thread->start(), 0; }), "StateError: EraThread already started");
  era_thread->stop();
  EXPECT_FALSE(era_thread->is_alive());
  EXPECT_FALSE(era_thread->_started);

  manager->era = Value(7);
  era_thread->start();
  EXPECT_TRUE(era_thread->is_alive());
  EXPECT_EQ(era_thread->_last_known_era_id.get(), Value(7));
  era_thread->abandon();
  era_thread->stop();
}

TEST_F(EraThreadTest, checksTheUrlBeforeAnythingElse) {
  token_source = nullptr;
  EXPECT_EQ(failure_of([&] { return watcher("http://example.com"); }).substr(0, 11), "ValueError:");
}

}  // namespace
}  // namespace brackenfen::sync
