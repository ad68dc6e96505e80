// Pseudo-random numbers and bytes that are the same on every machine: integers only, little-endian bytes.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace brackenfen::sync::distribution {

/// Spreads the bits of `number`; a good start for a generator and a fine hash of a few integers.
[[nodiscard]] constexpr std::uint64_t mix(std::uint64_t number) {
  number += 0x9e3779b97f4a7c15;
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

/// A number that depends on both, for streams that must not follow from each other.
[[nodiscard]] constexpr std::uint64_t mix(std::uint64_t key, std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325 ^ mix(key);
  for (const char character : text) hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3;
  return mix(hash);
}

/// xoshiro256++: fast enough that the disk is what one waits for.
class Generator {
 public:
  explicit Generator(std::uint64_t seed) {
    for (std::uint64_t& word : state_) word = mix(seed++);
  }

  [[nodiscard]] std::uint64_t next() {
    const std::uint64_t result = std::rotl(state_[0] + state_[3], 23) + state_[0];
    const std::uint64_t shifted = state_[1] << 17;
    state_[2] ^= state_[0];
    state_[3] ^= state_[1];
    state_[1] ^= state_[2];
    state_[0] ^= state_[3];
    state_[2] ^= shifted;
    state_[3] = std::rotl(state_[3], 45);
    return result;
  }

  /// Below `bound`, which must not be 0.
  [[nodiscard]] std::uint64_t below(std::uint64_t bound) { return next() % bound; }

  void fill(char* bytes, std::size_t size) {
    while (size > 0) {
      std::array<char, 8> word{};
      const std::uint64_t number = next();
      for (std::size_t i = 0; i < word.size(); ++i) word[i] = static_cast<char>(number >> (8 * i));
      const std::size_t taken = std::min(size, word.size());
      std::memcpy(bytes, word.data(), taken);
      bytes += taken;
      size -= taken;
    }
  }

 private:
  std::array<std::uint64_t, 4> state_{};
};

}  // namespace brackenfen::sync::distribution
