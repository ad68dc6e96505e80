// Finding by their keys what lies in a list: the list keeps its order, the index knows the positions.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

#include "sync/base/text/keyed_hash.hpp"

namespace brackenfen::sync {

/// Positions by the hash of their keys: open addressing, at most half full. It holds no key, so whoever asks compares those
/// in the list.
class PositionIndex {
 public:
  /// With room for `count` positions.
  explicit PositionIndex(std::size_t count = 0) : slots_(std::bit_ceil(count * 2), Slot{0, EMPTY}) {}

  [[nodiscard]] static std::uint32_t hash_of(std::string_view key) noexcept { return static_cast<std::uint32_t>(sync::hash_of(key)); }

  /// The slot of the position that `is_wanted` accepts, or the one in which it belongs.
  struct Place {
    std::size_t slot;
    bool found;
  };
  template <typename IsWanted>
  [[nodiscard]] Place locate(std::uint32_t hash, const IsWanted& is_wanted) const noexcept {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
      const Slot& slot = slots_[at];
      if (slot.position == EMPTY) return {at, false};
      if (slot.hash == hash && is_wanted(std::size_t{slot.position})) return {at, true};
    }
  }
  [[nodiscard]] std::size_t position(std::size_t slot) const noexcept { return slots_[slot].position; }
  void put(std::size_t slot, std::uint32_t hash, std::size_t position) noexcept {
    slots_[slot] = {hash, static_cast<std::uint32_t>(position)};
  }

  /// How many positions it may hold.
  [[nodiscard]] std::size_t capacity() const noexcept { return slots_.size() / 2; }
  /// The same positions, with room for `count`.
  [[nodiscard]] PositionIndex grown_to(std::size_t count) const {
    PositionIndex grown(count);
    for (const Slot& slot : slots_) {
      if (slot.position != EMPTY) grown.put(grown.locate(slot.hash, [](std::size_t) { return false; }).slot, slot.hash, slot.position);
    }
    return grown;
  }

 private:
  static constexpr std::uint32_t EMPTY = std::numeric_limits<std::uint32_t>::max();
  struct Slot {
    std::uint32_t hash;
    std::uint32_t position;
  };
  std::vector<Slot> slots_;
};

}  // namespace brackenfen::sync
