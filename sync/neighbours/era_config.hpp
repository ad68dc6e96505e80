// The epoch segments of manifest paths.
#pragma once

#include <string>

namespace brackenfen::sync {

/// The text values of the members of `EpochName`.
struct EpochNames {
  std::string signal_is = "signal_is";
  std::string strategy_is = "strategy_is";
  std::string signal_os = "signal_os";
};

class EraConfig {
 public:
  virtual ~EraConfig() = default;
  [[nodiscard]] virtual const EpochNames& epoch_names() const = 0;

  static const EraConfig& builtin();
};

}  // namespace brackenfen::sync
