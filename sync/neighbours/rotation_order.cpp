#include "sync/neighbours/rotation_order.hpp"

#include <fmt/format.h>

namespace brackenfen::sync {
namespace {

// SplitMix64: a state that grows by a fixed step, and a finaliser that scatters it.
constexpr std::uint64_t STEP = 0x9E3779B97F4A7C15;

constexpr std::uint64_t scatter(std::uint64_t bits) noexcept {
  bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9;
  bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EB;
  return bits ^ (bits >> 31);
}

/// FNV-1a.
constexpr std::uint64_t digest(std::string_view text) noexcept {
  std::uint64_t bits = 0xCBF29CE484222325;
  for (const char character : text) bits = (bits ^ static_cast<unsigned char>(character)) * 0x100000001B3;
  return bits;
}

}  // namespace

std::uint64_t low_64_bits(const Value& integer) noexcept {
  if (const auto small = integer.if_integer()) return static_cast<std::uint64_t>(*small);
  std::string_view digits = integer.if_big_integer().value_or("0");
  const bool negative = digits.starts_with('-');
  if (negative) digits.remove_prefix(1);
  std::uint64_t bits = 0;
  for (const char digit : digits) bits = bits * 10 + static_cast<std::uint64_t>(digit - '0');
  return negative ? 0 - bits : bits;
}

RotationOrder::RotationOrder(const Value& seed, const Value& generation) noexcept
    : state_(low_64_bits(seed) + low_64_bits(generation) * STEP), key_(scatter(state_)) {}

std::uint64_t RotationOrder::rank(std::string_view unit) const noexcept { return scatter(digest(unit) ^ key_); }

std::string RotationOrder::rng_state() const { return fmt::format("{:016x}", state_); }

std::string_view rotation_unit(std::string_view relative_path) noexcept {
  constexpr std::string_view SEPARATOR = "__";
  const std::size_t name = relative_path.rfind('/') + 1;  // 0 where there is no folder
  const std::size_t first = relative_path.find(SEPARATOR, name);
  if (first == std::string_view::npos || first == name) return relative_path;
  const std::size_t second = relative_path.find(SEPARATOR, first + SEPARATOR.size());
  if (second == std::string_view::npos || second == first + SEPARATOR.size()) return relative_path;
  return relative_path.substr(0, second + SEPARATOR.size());
}

}  // namespace brackenfen::sync
