// Memory that runs out: operator new of the whole test program, made to fail where a test says so.
#pragma once

#include <string_view>

namespace brackenfen::sync {

/// At most one at a time.
class FailingMemory {
 public:
  /// Every allocation fails on the library's threads whose names begin like this.
  explicit FailingMemory(const char* thread_name);
  /// The n-th allocation of the running thread fails, counted from 1; `and_later_ones` too, if so.
  explicit FailingMemory(int nth, bool and_later_ones = false);
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;
  ~FailingMemory();

  [[nodiscard]] bool has_failed() const;
};

}  // namespace brackenfen::sync
