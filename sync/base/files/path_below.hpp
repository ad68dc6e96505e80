// What a path is called within a directory.
#pragma once

#include <optional>
#include <string_view>

namespace brackenfen::sync {

/// Empty for the directory itself, absent for a path outside. Both absolute and folded; the directory may be "/".
[[nodiscard]] inline std::optional<std::string_view> path_below(std::string_view directory, std::string_view path) noexcept {
  if (!path.starts_with(directory)) return std::nullopt;
  const std::string_view rest = path.substr(directory.size());
  if (rest.empty() || directory.ends_with('/')) return rest;
  return rest.front() == '/' ? std::optional(rest.substr(1)) : std::nullopt;
}

}  // namespace brackenfen::sync
