#include "sync/lifecycle/era_callbacks.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "sync/base/convert.hpp"
#include "sync/base/error.hpp"
#include "sync/base/interrupt.hpp"
#include "tests/support/recording_log.hpp"

namespace brackenfen::sync {
namespace {

using testing::ElementsAre;

/// Equal by name, as callables of a host are by value.
struct Callback : EraCallback {
  explicit Callback(std::string given, std::vector<std::string>& called_names) : name(std::move(given)), called(called_names) {}
  void notify(std::string_view event_type, const Value& era_number) override {
    called.push_back(name + ":" + std::string(event_type) + ":" + to_text(era_number));
    if (action) action();
  }
  std::string text() const override { return name; }
  bool equals(const EraCallback& other) const override { return text() == other.text(); }

  std::string name;
  std::vector<std::string>& called;
  std::function<void()> action;
};

class EraCallbacksTest : public testing::Test {
 protected:
  std::shared_ptr<Callback> add(const std::string& name) {
    auto callback = std::make_shared<Callback>(name, called);
    callbacks.register_era_callback(callback);
    return callback;
  }
  std::vector<std::string> notify() {
    called.clear();
    callbacks._notify_era_callbacks("kill", Value(7));
    return called;
  }

  RecordingLog log;
  std::vector<std::string> called;
  EraCallbacks callbacks;
};

TEST_F(EraCallbacksTest, oneThatFailsDoesNotKeepTheOthersFromBeingCalled) {
  EXPECT_TRUE(notify().empty());
  add("a");
  add("b")->action = [] { throw ValueError("no"); };
  add("c");
  EXPECT_THAT(notify(), ElementsAre("a:kill:7", "b:kill:7", "c:kill:7"));
  EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre("Era callback failed (b): no"));
}

TEST_F(EraCallbacksTest, anInterruptIsNoFailureOfACallback) {
  add("a")->action = [] { throw Interrupted{}; };
  add("b");
  EXPECT_THROW(notify(), Interrupted);
  EXPECT_THAT(called, ElementsAre("a:kill:7"));
}

TEST_F(EraCallbacksTest, oneRegistrationIsRemovedAtATime) {
  add("a");
  add("b");
  add("a");
  callbacks.unregister_era_callback(Callback("unknown", called));
  EXPECT_THAT(notify(), ElementsAre("a:kill:7", "b:kill:7", "a:kill:7"));
  callbacks.unregister_era_callback(Callback("a", called));
  EXPECT_THAT(notify(), ElementsAre("b:kill:7", "a:kill:7"));
}

TEST_F(EraCallbacksTest, aChangeDuringARoundTakesEffectWithTheNext) {
  const auto first = add("a");
  first->action = [&] {
    callbacks.unregister_era_callback(*first);
    add("late");
  };
  add("b");
  EXPECT_THAT(notify(), ElementsAre("a:kill:7", "b:kill:7"));
  EXPECT_THAT(notify(), ElementsAre("b:kill:7", "late:kill:7"));
}

}  // namespace
}  // namespace brackenfen::sync
