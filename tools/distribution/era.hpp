// The era of a tree, as /era/current reports it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sync/base/values/value.hpp"
#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {

/// The two shapes of the answer that clients read alike.
enum class EraShape {
  Flat,     ///< {"era_number", "state", ...}
  Wrapped,  ///< {"era": {"era_number", ...}, "state"}, and {"era": null, ...} between eras
};

struct EraStatus {
  std::optional<std::int64_t> era;  ///< absent between eras
  std::string state = "active";
  std::optional<std::string> next_closing_at;
  std::string min_library_version = "0.0.0";
};

[[nodiscard]] Document era_document(const EraStatus& status, EraShape shape);

/// Replaces era/current.json by rename. Throws os_error.
void write_era(const TreePaths& paths, const EraStatus& status, EraShape shape);

}  // namespace brackenfen::sync::distribution
