// In which order features are considered: a hash of seed, generation and path, the same on every machine.
// docs/rotation.md holds the formula and an example to check against.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The low 64 bits of an integer of any size, a negative one in two's complement; 0 for anything else.
[[nodiscard]] std::uint64_t low_64_bits(const Value& integer) noexcept;

/// The orders of one generation.
class RotationOrder {
 public:
  RotationOrder(const Value& seed, const Value& generation) noexcept;
  /// Units are taken by ascending rank.
  [[nodiscard]] std::uint64_t rank(std::string_view unit) const noexcept;
  /// The generator's state as 16 hexadecimal digits. Adding the step of the generator to it gives the next generation's.
  [[nodiscard]] std::string rng_state() const;

 private:
  std::uint64_t state_;
  std::uint64_t key_;
};

/// What stays together: the path up to and including the family of a feature's name, so that companions share it, or
/// the whole path of a feature whose name tells no family. A view of `relative_path`.
[[nodiscard]] std::string_view rotation_unit(std::string_view relative_path) noexcept;

}  // namespace brackenfen::sync
