// A host that is asked whether waits shall end.
#pragma once

#include <functional>
#include <utility>

#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {

/// In the place of the usual one while it lives. `check` is called on whichever thread asks; it may throw Interrupted.
class HostInterrupt final : public InterruptSource {
 public:
  explicit HostInterrupt(std::function<void()> check) : check_(std::move(check)), usual_(set_interrupt_source(this)) {}
  HostInterrupt(const HostInterrupt&) = delete;
  HostInterrupt& operator=(const HostInterrupt&) = delete;
  ~HostInterrupt() override { set_interrupt_source(usual_); }
  void check() override { check_(); }

 private:
  std::function<void()> check_;
  InterruptSource* usual_;
};

}  // namespace brackenfen::sync
