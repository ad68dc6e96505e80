// Memory that runs out: operator new of the whole test program, made to fail where a test says so.
#pragma once

namespace brackenfen::sync {

/// The n-th allocation of the running thread fails, counted from 1. At most one at a time.
class FailingMemory {
 public:
  explicit FailingMemory(int nth);
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;
  ~FailingMemory();

  [[nodiscard]] bool has_failed() const;
};

}  // namespace brackenfen::sync
