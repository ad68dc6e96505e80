#include "sync/base/environment.hpp"

#include <cstdlib>

namespace brackenfen::sync {
namespace {

class ProcessEnvironment : public Environment {
 public:
  std::optional<std::string> get(const char* name) override {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
  }
};

}  // namespace

Environment& Environment::real() {
  static Environment& environment = *new ProcessEnvironment;
  return environment;
}

}  // namespace brackenfen::sync
