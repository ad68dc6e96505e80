// The digest of a file that was seen a moment ago.
#pragma once

#include <optional>
#include <string>

namespace brackenfen::sync {

/// As _sha256_file; absent where the file has gone meanwhile: others may remove or replace it between two looks.
[[nodiscard]] std::optional<std::string> sha256_if_there(const std::string& filepath);

}  // namespace brackenfen::sync
