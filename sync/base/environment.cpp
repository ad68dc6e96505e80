#include "sync/base/environment.hpp"

#include <atomic>
#include <cstdlib>
#include <string_view>

namespace brackenfen::sync {
namespace {

constinit std::atomic<EnvironmentGuard> guard_in_force{nullptr};

class ProcessEnvironment : public Environment {
 public:
  std::optional<std::string> get(const char* name) override {
    std::optional<std::string> copy;
    together([&] {
      if (const char* const value = std::getenv(name)) copy = value;
    });
    return copy;
  }

  void together(const std::function<void()>& reading) override {
    const EnvironmentGuard guard = guard_in_force.load(std::memory_order_acquire);
    guard != nullptr ? guard(reading) : reading();
  }
};

}  // namespace

Environment& Environment::real() {
  static Environment& environment = *new ProcessEnvironment;
  return environment;
}

void set_environment_guard(EnvironmentGuard guard) noexcept { guard_in_force.store(guard, std::memory_order_release); }

EnvironmentCopy::EnvironmentCopy(Environment& source, std::span<const char* const> names) {
  source.together([&] {
    for (const char* const name : names) {
      if (std::optional<std::string> value = source.get(name)) variables_.emplace_back(name, std::move(*value));
    }
  });
}

std::optional<std::string> EnvironmentCopy::get(const char* name) {
  for (const auto& [known, value] : variables_) {
    if (std::string_view(known) == name) return value;
  }
  return std::nullopt;
}

}  // namespace brackenfen::sync
