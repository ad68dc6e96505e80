#include "sync/base/parallel.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/interrupt.hpp"
#include "tests/support/failures.hpp"

namespace brackenfen::sync {
namespace {

constexpr int REPEATS = 50;

TEST(ForEachIndex, worksOnEachIndexOnceUntilTheLowestThatEndsItDecides) {
  struct Row {
    std::size_t count;
    std::map<std::size_t, bool> ends;  ///< index to whether it throws; false otherwise
    std::string outcome;
  };
  const Row rows[] = {
      {0, {}, "0"},
      {1, {}, "1"},
      {3, {}, "3"},
      {10001, {}, "10001"},
      {1000, {{300, false}, {301, true}, {700, true}}, "300"},
      {1000, {{300, true}, {301, false}, {302, true}}, "ValueError: 300"},
      {1000, {{999, true}}, "ValueError: 999"},
      {1000, {{0, true}, {999, false}}, "ValueError: 0"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.outcome);
    for (int repeat = 0; repeat < REPEATS; ++repeat) {
      std::vector<std::atomic<int>> worked(row.count);
      const auto work = [&]() -> IndexWork {
        return [&, busy = std::make_shared<std::atomic<bool>>(false)](std::size_t index) {
          EXPECT_FALSE(busy->exchange(true)) << "two threads share a work";
          ++worked[index];
          *busy = false;
          const auto found = row.ends.find(index);
          if (found != row.ends.end() && found->second) throw ValueError(std::to_string(index));
          return found == row.ends.end();
        };
      };
      std::string outcome;
      const std::string failure = failure_of([&] { return outcome = std::to_string(for_each_index(row.count, work)); });
      EXPECT_EQ(outcome + failure, row.outcome);
      const std::size_t lowest = row.ends.empty() ? row.count : row.ends.begin()->first;
      EXPECT_TRUE(
          std::all_of(worked.begin(), worked.begin() + static_cast<std::ptrdiff_t>(lowest), [](const auto& times) { return times == 1; }));
    }
  }
}

TEST(ForEachIndex, anInterruptOfTheCallerTakesTheOthersAlong) {
  for (int repeat = 0; repeat < REPEATS; ++repeat) {
    const auto token = std::make_shared<InterruptToken>();
    const InterruptScope scope(token);
    std::atomic<int> inside{0};
    const auto endless = [&]() -> IndexWork {
      return [&](std::size_t index) {
        ++inside;
        if (index == 50) token->trip();
        while (token->tripped()) {  // as long as the thread is not interrupted itself
          try {
            check_interrupt();
          } catch (const Interrupted&) {
            --inside;
            throw;
          }
        }
        --inside;
        return true;
      };
    };
    EXPECT_THROW(static_cast<void>(for_each_index(100000, endless)), Interrupted);
    EXPECT_EQ(inside, 0) << "a thread works on after the call";
  }
}

}  // namespace
}  // namespace brackenfen::sync
