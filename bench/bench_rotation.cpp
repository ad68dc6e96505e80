// Planning over 100,000 artifacts, and the clean-up walk over as many files beside find(1). Limits: 150 ms, and 2 times find.
// Also the figures of the simulated fleet that docs/rotation.md shows.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>

#include "bench/dataset.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/rotation/artifacts.hpp"
#include "sync/rotation/cleanup.hpp"
#include "tests/support/rotation_fleet.hpp"

extern char** environ;

using namespace brackenfen::sync;

namespace {

constexpr int FILES = 100000;

/// From the manifest's record to the plan, as the first pass of a version does it.
double plan_seconds(const Document& manifest, const RotationStateRef& state, double budget_share) {
  const auto neighbours = Neighbours::builtin().bind();
  std::int64_t total = 0;
  for (int index = 0; index < FILES; ++index) total += static_cast<std::int64_t>(bench::feature_path(index).size());
  double best = 1e9;
  for (int round = 0; round < 7; ++round) {
    Manifest record(*neighbours, Value(manifest));
    best = std::min(best, bench::best_seconds(1, [&] {
                      const ArtifactsRef artifacts = _rotation_manifest_artifacts(*neighbours, record);
                      (void)_rotation_catalog_context_from_manifest(record.data(), *artifacts);
                      PlanningFacts facts;
                      facts.free_disk_bytes = std::int64_t{1} << 50;
                      facts.rotation_due = true;
                      const auto budget = static_cast<std::int64_t>(budget_share * static_cast<double>(total));
                      (void)builtin_plan_rotation(artifacts, budget_of(budget, 1), state, facts);
                    }));
  }
  return best;
}

void find(const std::string& directory) {
  const char* arguments[] = {"find", directory.c_str(), "-name", "no-such-name", nullptr};
  pid_t child = 0;
  if (posix_spawnp(&child, "find", nullptr, nullptr, const_cast<char**>(arguments), environ) != 0) std::abort();
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) std::abort();
}

}  // namespace

int main(int argc, char** argv) {
  const Document manifest = bench::make_manifest(FILES, 1);
  const ArtifactsRef artifacts = [&] {
    const auto neighbours = Neighbours::builtin().bind();
    Manifest record(*neighbours, Value(manifest));
    return _rotation_manifest_artifacts(*neighbours, record);
  }();
  PlanningFacts facts;
  facts.free_disk_bytes = std::int64_t{1} << 50;
  const RotationStateRef state = builtin_plan_rotation(artifacts, budget_of(std::int64_t{1} << 40), nullptr, facts).candidate_state;

  const std::string directory = join_path(argc > 1 ? argv[1] : ".", "pass");
  make_directories(directory);
  bench::make_files(directory, FILES);
  TextSet keep;
  for (int index = 0; index < FILES; ++index) keep.insert(Text(bench::feature_path(index)));
  double find_ms = 1e9;
  double walk_ms = 1e9;
  for (int round = 0; round < 7; ++round) {
    find_ms = std::min(find_ms, bench::best_seconds(1, [&] { find(directory); }) * 1e3);
    walk_ms = std::min(walk_ms, bench::best_seconds(1, [&] { delete_files_not_kept(Files::real(), directory, keep); }) * 1e3);
  }

  constexpr int CLIENTS = 1000;
  constexpr int WEEKS = 52;
  FleetCoverage fleet;
  const double fleet_seconds = bench::best_seconds(1, [&] { fleet = run_fleet(CLIENTS, WEEKS, make_features(100, 3), 0.2); });
  std::int64_t least = INT64_MAX;
  std::int64_t most = 0;
  for (const auto& [path, held] : fleet.held) {
    least = std::min(least, held);
    most = std::max(most, held);
  }
  std::printf(
      R"({"files": %d, "plan_ms": %.1f, "budget_plan_ms": %.1f, "find_ms": %.1f, "walk_ms": %.1f, "walk_ratio": %.2f, "fleet_seconds": %.1f, )"
      R"("least_share": %.4f, "most_share": %.4f, "seen": [)",
      FILES, plan_seconds(manifest, state, 2) * 1e3, plan_seconds(manifest, state, 0.2) * 1e3, find_ms, walk_ms, walk_ms / find_ms,
      fleet_seconds, static_cast<double>(least) / (CLIENTS * WEEKS), static_cast<double>(most) / (CLIENTS * WEEKS));
  for (std::size_t week = 0; week < fleet.seen.size(); ++week) std::printf("%s%.5f", week == 0 ? "" : ", ", fleet.seen[week]);
  std::printf("]}\n");
}
