// The version of the library.
#pragma once

#include <string_view>

namespace brackenfen::sync {

inline constexpr std::string_view LIBRARY_VERSION = "0.0.3";

}  // namespace brackenfen::sync
