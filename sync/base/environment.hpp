// The process environment, as a seam. Read anew at every use.
//
// The C library lets one thread read a variable while another sets one, and may crash: a host that changes its
// environment keeps its own lock over that, which the guard takes for the length of each reading.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace brackenfen::sync {

class Environment {
 public:
  virtual ~Environment() = default;
  /// The variable's value, or absent where it is unset. Any thread.
  [[nodiscard]] virtual std::optional<std::string> get(const char* name) = 0;
  /// Runs `reading`, which reads several variables or asks the host for other things: where each of them waits for the
  /// host, they do so once. Nothing in it logs or waits for anything else.
  virtual void together(const std::function<void()>& reading) { reading(); }

  static Environment& real();
};

/// Runs `reading` while no other thread changes the environment.
using EnvironmentGuard = void (*)(const std::function<void()>& reading);
/// nullptr for none (the default): nobody changes it.
void set_environment_guard(EnvironmentGuard guard) noexcept;

/// What some variables held at one moment; any other is absent. Any thread.
class EnvironmentCopy final : public Environment {
 public:
  EnvironmentCopy(Environment& source, std::span<const char* const> names);
  std::optional<std::string> get(const char* name) override;

 private:
  std::vector<std::pair<const char*, std::string>> variables_;  // those that are set
};

}  // namespace brackenfen::sync
