// Adding integers of any size: sizes come from the network, and a sum must never wrap around.
#pragma once

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The sum of two integer Values, of whatever size it takes.
[[nodiscard]] Value add_integers(const Value& left, const Value& right);

}  // namespace brackenfen::sync
