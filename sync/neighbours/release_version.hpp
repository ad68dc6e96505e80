// The order of version numbers, as PEP 440 has it.
#pragma once

#include <string_view>

namespace brackenfen::sync {

/// Negative, zero or positive as `left` is older than, the same as or newer than `right`. Pre-releases and
/// development releases stand below their release, post-releases above it; the local part after "+" does not count.
/// Throws ValueError for a text that is no version.
[[nodiscard]] int compare_release_versions(std::string_view left, std::string_view right);

}  // namespace brackenfen::sync
