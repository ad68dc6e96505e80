// Which files a sample data set consists of, and what its documents say. Nothing here touches the disk.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/distribution/sample.hpp"

namespace brackenfen::sync::distribution {

/// A file of noise: its bytes follow from `content_seed` alone.
struct PlannedArtifact {
  std::string relative_path;
  std::uint64_t content_seed = 0;
  std::int64_t size_bytes = 0;
};

/// A file whose bytes are given.
struct PlannedDocument {
  std::string relative_path;
  std::string bytes;
};

struct SamplePlan {
  std::vector<PlannedArtifact> artifacts;
  std::vector<PlannedDocument> documents;
  std::string shuffle_seed;
};

/// Throws ValueError where the options cannot be met, such as fewer files than there are documents.
[[nodiscard]] SamplePlan plan_sample(const SampleOptions& options, std::int64_t era);

}  // namespace brackenfen::sync::distribution
