// What the server says of its era under /era/current, in either of the two shapes it comes in.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

inline constexpr std::string_view ERA_CURRENT_PATH = "/era/current";

/// Both shapes as one flat document with `era_number`, `state`, `next_closing_at` and `min_library_version`, as far as
/// the server gave them: {"era": {...}, "state": ...} is unwrapped, where the inner `state` wins; an `era` that is no
/// document stands for the gap between eras. Empty for what is no document; a flat document is passed through.
[[nodiscard]] Document _normalize_era_current_response(const Value& data);

/// The answer's body, read and normalised. Throws what parse_json throws.
[[nodiscard]] Document parse_era_current(std::string_view body);

/// Whether era `left` comes after era `right`: numbers by size, texts by code point. Throws TypeError, as Python
/// words it, for what has no order.
[[nodiscard]] bool era_is_later(const Value& left, const Value& right);

}  // namespace brackenfen::sync
