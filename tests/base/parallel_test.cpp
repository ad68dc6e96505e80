#include "sync/base/threads/parallel.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sync/base/error.hpp"
#include "tests/support/failures.hpp"

namespace brackenfen::sync {
namespace {

constexpr int REPEATS = 50;

TEST(ForEachIndex, worksOnEachIndexOnceUntilTheLowestThatEndsItDecides) {
  struct Row {
    std::size_t count;
    std::size_t lowest;  ///< ends it, and every index above would, by an error that takes a while
    bool throws;
    std::string outcome;
  };
  const Row rows[] = {
      {0, 0, false, "0"},
      {1, 1, false, "1"},
      {3, 3, false, "3"},
      {10001, 10001, false, "10001"},
      {1000, 300, false, "300"},
      {1000, 300, true, "ValueError: 300"},
      {1000, 999, true, "ValueError: 999"},
      {1000, 0, true, "ValueError: 0"},
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
          if (index < row.lowest) return true;
          if (index > row.lowest) std::this_thread::sleep_for(std::chrono::milliseconds(1));
          if (index > row.lowest || row.throws) throw ValueError(std::to_string(index));
          return false;
        };
      };
      std::string outcome;
      const std::string failure = failure_of([&] { return outcome = std::to_string(for_each_index(row.count, work)); });
      EXPECT_EQ(outcome + failure, row.outcome);
      const auto lowest = static_cast<std::ptrdiff_t>(row.lowest);
      EXPECT_TRUE(std::all_of(worked.begin(), worked.begin() + lowest, [](const auto& times) { return times == 1; }));
    }
  }
}

}  // namespace
}  // namespace brackenfen::sync
