#include "tools/distribution/sample.hpp"

#include <fcntl.h>
#include <fmt/core.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "tools/distribution/generator.hpp"
#include "tools/distribution/kinds.hpp"
#include "tools/distribution/publish.hpp"
#include "tools/distribution/sample_plan.hpp"
#include "tools/distribution/tree.hpp"
#include "tools/distribution/workers.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::size_t BLOCK_BYTES = 256 * 1024;
constexpr std::int64_t PNL_COLUMNS = 8;

void write_noise(const std::string& path, const PlannedArtifact& artifact, std::string& block) {
  const Descriptor file = open_file(path, O_WRONLY | O_CREAT | O_EXCL);
  Generator generator(artifact.content_seed);
  for (std::int64_t left = artifact.size_bytes; left > 0;) {
    block.resize(static_cast<std::size_t>(std::min<std::int64_t>(left, BLOCK_BYTES)));
    generator.fill(block.data(), block.size());
    write_all(file, block, path);
    left -= static_cast<std::int64_t>(block.size());
  }
}

void write_bytes(const std::string& path, std::string_view bytes) { write_all(open_file(path, O_WRONLY | O_CREAT | O_EXCL), bytes, path); }

void write_artifacts(const SamplePlan& plan, const std::string& folder) {
  std::set<std::string> folders{folder};
  for (const PlannedArtifact& artifact : plan.artifacts) folders.insert(directory_of(folder + "/" + artifact.relative_path));
  for (const PlannedDocument& document : plan.documents) folders.insert(directory_of(folder + "/" + document.relative_path));
  for (const std::string& path : folders) make_directories(path);
  for (const PlannedDocument& document : plan.documents) write_bytes(folder + "/" + document.relative_path, document.bytes);
  for_each_index(plan.artifacts.size(), [&](std::size_t index) {
    thread_local std::string block;
    write_noise(folder + "/" + plan.artifacts[index].relative_path, plan.artifacts[index], block);
  });
}

/// The artifacts are written where they are served from; publishing then finds them in place.
void write_tree(const SamplePlan& plan, const SampleOptions& options, const std::string& folder, std::int64_t era) {
  const TreePaths paths{folder};
  write_artifacts(plan, paths.files());
  PublishOptions publication;
  publication.source = paths.files();
  publication.out = folder;
  publication.era = era;
  publication.version = era - options.first_era + 1;
  publication.pnl_column_count = PNL_COLUMNS;
  publication.shuffle_seed = plan.shuffle_seed;
  publish(publication);
}

void require_empty(const std::string& folder) {
  std::error_code failure;
  if (!path_exists(folder)) return;
  const bool is_empty = std::filesystem::is_empty(folder, failure);
  if (failure) throw os_error(failure.value(), folder);
  if (!is_empty) throw RuntimeError(fmt::format("{} is not empty; a sample goes into a new folder", folder));
}

void require_universes(const std::vector<std::string>& universes) {
  std::set<std::string_view> seen;
  for (const std::string& universe : universes) {
    if (universe.find('/') != std::string::npos || universe.starts_with('.') || path_objection(universe)) {
      throw ValueError(fmt::format("'{}' is no name for a universe", universe));
    }
    if (!seen.insert(universe).second) throw ValueError(fmt::format("the universe {} is given twice", universe));
  }
}

}  // namespace

SampleReport make_sample(const SampleOptions& options) {
  require_universes(options.universes);
  require_empty(options.out);
  SampleReport report;
  for (std::int64_t era = options.first_era; era < options.first_era + options.eras; ++era) {
    const SamplePlan plan = plan_sample(options, era);
    const std::string folder = options.eras == 1 ? options.out : fmt::format("{}/era-{}", options.out, era);
    if (options.source_only) {
      write_artifacts(plan, folder);
      write_bytes(folder + "/" + std::string(SHUFFLE_SEED_NAME), plan.shuffle_seed);
    } else {
      write_tree(plan, options, folder, era);
    }
    report.folders.push_back(folder);
    report.files = static_cast<std::int64_t>(plan.artifacts.size() + plan.documents.size());
    report.bytes = 0;
    for (const PlannedArtifact& artifact : plan.artifacts) report.bytes += artifact.size_bytes;
    for (const PlannedDocument& document : plan.documents) report.bytes += static_cast<std::int64_t>(document.bytes.size());
  }
  return report;
}

}  // namespace brackenfen::sync::distribution
