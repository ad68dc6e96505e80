// What the handles of value.hpp point at: reference-counted nodes whose characters, elements or members lie
// behind them in the same allocation. Private to value.cpp and containers.cpp.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/values/position_index.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync::detail {

/// Look-up by scanning is as fast as hashing up to here.
inline constexpr std::size_t MEMBERS_WITHOUT_INDEX = 8;

using References = std::atomic<std::uint32_t>;

inline void add_reference(References& references) noexcept { references.fetch_add(1, std::memory_order_relaxed); }
[[nodiscard]] inline bool drop_reference(References& references) noexcept {
  return references.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

inline std::uint32_t checked_size(std::size_t size) {
  if (size > std::numeric_limits<std::uint32_t>::max()) throw Error(error_class::MemoryError, "value too large");
  return static_cast<std::uint32_t>(size);
}

/// Where a document's members lie by their keys. Documents that differ only in values share one.
struct KeyIndex : PositionIndex {
  using PositionIndex::PositionIndex;

  [[nodiscard]] Place locate(std::string_view key, std::uint32_t hash, const Member* members) const noexcept {
    return PositionIndex::locate(hash, [&](std::size_t position) { return members[position].key.view() == key; });
  }

  mutable References references{1};
};

struct TextNode {
  mutable References references{1};
  std::uint32_t size;

  explicit TextNode(std::uint32_t text_size) noexcept : size(text_size) {}
  [[nodiscard]] char* characters() noexcept { return reinterpret_cast<char*>(this + 1); }
  [[nodiscard]] const char* characters() const noexcept { return reinterpret_cast<const char*>(this + 1); }

  static TextNode* create(std::size_t size) {
    const std::uint32_t count = checked_size(size);
    return new (::operator new(sizeof(TextNode) + size)) TextNode(count);
  }
};

struct ListNode {
  mutable References references{1};
  std::uint32_t size;
  mutable const ListNode* next_dead = nullptr;

  explicit ListNode(std::uint32_t list_size) noexcept : size(list_size) {}
  [[nodiscard]] Value* elements() noexcept { return reinterpret_cast<Value*>(this + 1); }
  [[nodiscard]] const Value* elements() const noexcept { return reinterpret_cast<const Value*>(this + 1); }

  static ListNode* create(std::size_t size) {
    const std::uint32_t count = checked_size(size);
    return new (::operator new(sizeof(ListNode) + size * sizeof(Value))) ListNode(count);
  }
};

struct DocumentNode {
  mutable References references{1};
  std::uint32_t size = 0;
  const KeyIndex* index = nullptr;  // one reference is held
  mutable const DocumentNode* next_dead = nullptr;

  [[nodiscard]] Member* members() noexcept { return reinterpret_cast<Member*>(this + 1); }
  [[nodiscard]] const Member* members() const noexcept { return reinterpret_cast<const Member*>(this + 1); }

  /// With room for `capacity` members and none in it yet.
  static DocumentNode* create(std::size_t capacity) {
    (void)checked_size(capacity);
    return new (::operator new(sizeof(DocumentNode) + capacity * sizeof(Member))) DocumentNode;
  }
  void append(Text key, Value value) noexcept { new (members() + size++) Member{std::move(key), std::move(value)}; }
  [[nodiscard]] const Member* locate(std::string_view key) const noexcept {
    if (index != nullptr) {
      const KeyIndex::Place place = index->locate(key, PositionIndex::hash_of(key), members());
      return place.found ? members() + index->position(place.slot) : nullptr;
    }
    const Member* const end = members() + size;
    const Member* const found = std::find_if(members(), end, [&](const Member& member) { return member.key.view() == key; });
    return found == end ? nullptr : found;
  }
  void build_index() {
    if (size <= MEMBERS_WITHOUT_INDEX) return;
    auto* const built = new KeyIndex(size);
    for (std::size_t position = 0; position < size; ++position) {
      const std::string_view key = members()[position].key.view();
      const std::uint32_t hash = PositionIndex::hash_of(key);
      built->put(built->locate(key, hash, members()).slot, hash, position);
    }
    index = built;
  }
};

}  // namespace brackenfen::sync::detail
