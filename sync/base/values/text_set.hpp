// Sets of paths that are asked with whatever text is at hand.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include <tsl/robin_set.h>

#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Hashes are kept, so that a text is read only where it is the one that is looked for.
using TextSet = tsl::robin_set<Text, KeyedHash, KeyedEqual, std::allocator<Text>, true>;

[[nodiscard]] inline TextSet set_of(std::span<const Text> texts) {
  TextSet set;
  set.reserve(texts.size());
  set.insert(texts.begin(), texts.end());
  return set;
}
[[nodiscard]] inline bool contains(const TextSet& set, std::string_view text) { return set.find(text) != set.end(); }

}  // namespace brackenfen::sync
