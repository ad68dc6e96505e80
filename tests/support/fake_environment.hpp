// Environment variables that a test sets for itself alone.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "sync/base/environment.hpp"

namespace brackenfen::sync {

class FakeEnvironment final : public Environment {
 public:
  FakeEnvironment() = default;
  explicit FakeEnvironment(std::map<std::string, std::string> variables) : variables_(std::move(variables)) {}

  std::optional<std::string> get(const char* name) override {
    const std::lock_guard lock(mutex_);
    const auto found = variables_.find(name);
    if (found == variables_.end()) return std::nullopt;
    return found->second;
  }
  void set(const std::string& name, std::string value) {
    const std::lock_guard lock(mutex_);
    variables_[name] = std::move(value);
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> variables_;
};

}  // namespace brackenfen::sync
