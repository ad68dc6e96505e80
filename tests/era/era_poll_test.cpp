#include <future>
#include <thread>

#include "sync/base/values/convert.hpp"
#include "sync/era/era_thread.hpp"
#include "tests/support/host_interrupt.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

/// Remembers the transitions asked for, and fails them on demand.
struct Transitions : EraManager {
  std::optional<Value> manifest_era() override { return era; }
  void trigger_era_transition(const Value& new_era_id, const SearchesFn&, const SearchesFn&) override {
    asked.push_back(to_text(new_era_id));
    if (!failure.empty()) throw EraError(failure);
  }
  std::optional<Value> era = Value(7);
  std::vector<std::string> asked;
  std::string failure;
};

class EraPollTest : public testing::Test, protected SyncSetup {
 protected:
  std::shared_ptr<EraThread> watcher() {
    auto made = std::make_shared<EraThread>(EraThread::Options{.server_url = server.url(),
                                                               .get_token = token_source,
                                                               .sync_manager = manager,
                                                               .kill_searches_fn = {},
                                                               .restart_searches_fn = [this] { restart(); },
                                                               .seams = seams()});
    if (manager->era) made->_last_known_era_id.set(*manager->era);
    return made;
  }
  void restart() {
    ++restarts;
    if (!restart_failure.empty()) throw ValueError(restart_failure);
  }
  void poll(EraThread& thread, const Reply& reply) {
    server.script("/era/current", {reply});
    thread._poll_once();
  }
  static Reply era(const char* number, const char* state) {
    return {.body = R"({"era_number": )" + std::string(number) + R"(, "state": ")" + state + R"("})"};
  }

  std::shared_ptr<Transitions> manager = std::make_shared<Transitions>();
  int restarts = 0;
  std::string restart_failure;
};

TEST_F(EraPollTest, followsTheTableOfStates) {
  struct Row {
    bool in_closing;
    Reply reply;
    std::vector<std::string> asked;
    int restarts;
    bool in_closing_after;
    Value known_after = 7;
  };
  const Row rows[] = {
      {false, era("7", "active"), {}, 0, false},
      {false, era("7", "closing"), {"7"}, 0, true},
      {false, era("8", "closing"), {"8"}, 0, true},
      {true, era("7", "closing"), {}, 0, true},
      {true, era("8", "closing"), {"8"}, 0, false, 8},
      {true, era("7", "active"), {}, 1, false},
      {false, era("8", "active"), {"8"}, 0, false, 8},
      {true, era("8", "active"), {"8"}, 0, false, 8},
      {false, era("9", "frozen"), {"9"}, 0, false, 9},
      {false, era("null", "between_eras"), {}, 0, false},
      {true, era("null", "between_eras"), {}, 0, true},
      {true, {.body = R"({"era": null})"}, {}, 0, true},
      {true, {.body = R"({"era_number": 7.0})"}, {}, 1, false},
      {true, {.body = R"({"era_number": 8, "state": null})"}, {"8"}, 0, false, 8},
      {true, era("7", "frozen"), {}, 0, true},
      {false, {.body = R"({"era": null, "state": "closing"})"}, {"None"}, 0, true},
      {true, {.status = 404, .body = R"({"era_number": 8})"}, {}, 0, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.reply.body + (row.in_closing ? " in closing" : ""));
    manager->asked.clear();
    restarts = 0;
    const auto thread = watcher();
    thread->_in_closing = row.in_closing;
    poll(*thread, row.reply);
    EXPECT_EQ(manager->asked, row.asked);
    EXPECT_EQ(restarts, row.restarts);
    EXPECT_EQ(thread->_in_closing, row.in_closing_after);
    EXPECT_EQ(thread->_last_known_era_id.get(), row.known_after);
  }
  EXPECT_THAT(log.messages(LogLevel::Debug), Contains("Agent onboarding: era_change, from era 7 to era 8"));
  EXPECT_THAT(warnings(), IsEmpty());
  EXPECT_EQ(server.requests().front().header("Authorization"), "Bearer token");
}

TEST_F(EraPollTest, aCloseIsAnnouncedFollowedAndCalledOff) {
  const auto thread = watcher();
  const Reply announced{.body = R"({"era_number": 7, "state": "active", "next_closing_at": [1, "x"]})"};
  poll(*thread, announced);
  poll(*thread, announced);
  poll(*thread, era("7", "closing"));
  poll(*thread, era("7", "closing"));
  restart_failure = "no workers";
  poll(*thread, era("7", "active"));
  poll(*thread, era("7", "active"));
  const std::string text = "Scheduled close announced at ";
  EXPECT_THAT(log.messages(LogLevel::Info),
              ElementsAre(text + "[1, 'x']. Continue normal operation.", text + "[1, 'x']. Continue normal operation.",
                          text + "None. Continue normal operation.", "Era transition cancelled — resuming normal operation."));
  EXPECT_THAT(manager->asked, ElementsAre("7"));
  EXPECT_EQ(restarts, 1);
  EXPECT_THAT(warnings(), ElementsAre("Restart searches callback failed: no workers"));
}

TEST_F(EraPollTest, aClosingEraIsNotTriedAgain) {
  const auto thread = watcher();
  manager->failure = "not now";
  for (int time = 0; time < 2; ++time) poll(*thread, era("7", "closing"));
  EXPECT_TRUE(thread->_transition_failed && thread->_in_closing);
  EXPECT_EQ(thread->_last_transition_error.get(), Value("closing: not now"));
  EXPECT_THAT(manager->asked, ElementsAre("7"));
  EXPECT_THAT(warnings(), ElementsAre("Trigger era transition (closing) failed: not now"));
}

TEST_F(EraPollTest, aStopThatEndsLateLeavesTheWatchThatWasStartedSince) {
  const auto thread = watcher();
  server.script("/era/current", {era("7", "active")});
  std::promise<void> polls, go_on;
  token->call_once([&] {
    polls.set_value();
    go_on.get_future().wait();
  });
  thread->start();
  polls.get_future().wait();
  const std::thread::id stopping = std::this_thread::get_id();
  bool restarted = false;
  const HostInterrupt while_it_waits([&] {
    if (std::this_thread::get_id() != stopping || std::exchange(restarted, true)) return;
    go_on.set_value();
    thread->stop();  // as another thread, which is quicker
    thread->start();
  });
  thread->stop();
  EXPECT_TRUE(restarted);
  EXPECT_TRUE(thread->_started && thread->is_alive());
  thread->stop();
  EXPECT_FALSE(thread->_started || thread->is_alive());
}

TEST_F(EraPollTest, withoutAnEraToLeaveOnlyClosingLeadsToATransition) {
  manager->era.reset();
  const auto thread = watcher();
  for (const char* number : {"7", "8"}) poll(*thread, era(number, "active"));
  EXPECT_THAT(manager->asked, IsEmpty());
  poll(*thread, era("8", "closing"));
  EXPECT_THAT(manager->asked, ElementsAre("8"));
  EXPECT_EQ(thread->_last_known_era_id.get(), Value());
}

TEST_F(EraPollTest, aPollThatFailsChangesNothing) {
  const auto thread = watcher();
  poll(*thread, {.body = "\xff"});
  token->call_once([] { throw ValueError("no token"); });
  poll(*thread, era("8", "active"));
  EXPECT_THAT(warnings(), ElementsAre(StartsWith("Era poll failed: 'utf-8' codec"), "Era poll failed: no token"));
  EXPECT_THAT(manager->asked, IsEmpty());
}

}  // namespace
}  // namespace brackenfen::sync
