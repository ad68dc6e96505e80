// A token source through which a test gets into the middle of an operation.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "sync/transport/token_source.hpp"

namespace brackenfen::sync {

class CallingToken final : public TokenSource {
 public:
  /// Calls `action` the next time anything asks for a token, on the thread that asks.
  void call_once(std::function<void()> action) {
    const std::lock_guard lock(mutex_);
    action_ = std::move(action);
  }
  /// Calls `action` whenever anything asks; set before anything does.
  void call_each(std::function<void()> action) { each_ = std::move(action); }
  std::string token() override {
    if (each_) each_();
    if (const auto action = take()) action();
    return "token";
  }

 private:
  std::function<void()> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(action_, nullptr);
  }

  std::mutex mutex_;
  std::function<void()> action_;
  std::function<void()> each_;
};

}  // namespace brackenfen::sync
