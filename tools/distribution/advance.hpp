// Taking a tree from era to era while it is being served: an announced close, the close itself, the gap in which no
// era is open, and the next era with its own data.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/distribution/era.hpp"

namespace brackenfen::sync::distribution {

enum class EraStep {
  Announce,  ///< active, with the time of its close
  Close,     ///< closing
  Reopen,    ///< the close is called off: active again
  Gap,       ///< between eras
  Open,      ///< the next era, published from a source
};

struct AdvanceOptions {
  std::string tree;
  std::vector<std::string> sources;  ///< folders of artifacts, one for each era to open
  std::optional<EraStep> step;       ///< this step alone; absent for the whole course, once for each source
  // How long each stretch of the course lasts. The announcement falls into the last part of the active one.
  double active_seconds = 60;
  double announced_seconds = 10;
  double closing_seconds = 10;
  double gap_seconds = 10;
  EraShape shape = EraShape::Flat;
  /// Absent: what the tree says already, and "0.0.0" for a new era.
  std::optional<std::string> min_library_version;
  std::optional<std::string> base_url;  ///< of the eras that are opened; absent: the one before
};

/// Prints a line at each step. An era's number and version are one above those before it. Throws Error; the tree is
/// whole at any moment, also where the process is killed.
void advance(const AdvanceOptions& options);

}  // namespace brackenfen::sync::distribution
