// A made-up data set, and clients that rotate over it: the built-in planner without disk or network.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sync/neighbours/rotation_planner.hpp"

namespace brackenfen::sync {

struct PlannedFile {
  std::string path;
  std::int64_t size_bytes = 1;
  bool mandatory = false;
};

inline ArtifactsRef make_artifacts(const std::vector<PlannedFile>& files) {
  std::vector<ArtifactRow> rows;
  for (const PlannedFile& file : files)
    rows.push_back({file.path, Value(Document{{"kind", "feature"}, {"size_bytes", file.size_bytes}, {"mandatory", file.mandatory}})});
  return ArtifactRotation::builtin().artifact_descriptors(std::move(rows));
}

/// `families` families of `per_family` features; sizes differ by a factor of up to 16.
inline std::vector<PlannedFile> make_features(int families, int per_family) {
  std::vector<PlannedFile> files;
  for (int family = 0; family < families; ++family) {
    for (int member = 0; member < per_family; ++member) {
      const std::string name = "f" + std::to_string(1000 + family) + "__daily__w" + std::to_string(member) + "__v1.arrow";
      files.push_back({"features/liquid/signal_is/" + name, std::int64_t{1} << (family % 5)});
    }
  }
  return files;
}

inline std::int64_t bytes_of(const std::vector<PlannedFile>& files) {
  std::int64_t total = 0;
  for (const PlannedFile& file : files) total += file.size_bytes;
  return total;
}

inline ArtifactRotationSettings budget_of(std::int64_t bytes, std::uint64_t seed = 1) {
  ArtifactRotationSettings settings;
  settings.scoped = true;
  settings.seed = seed;
  settings.feature_budget_bytes = bytes;
  return settings;
}

struct FleetCoverage {
  std::map<std::string, std::int64_t> held;  ///< by path: in how many client-weeks
  std::vector<double> seen;                  ///< after each week: which share of the features an average client has held
};

inline FleetCoverage run_fleet(int clients, int weeks, const std::vector<PlannedFile>& files, double budget_share) {
  const ArtifactsRef artifacts = make_artifacts(files);
  const auto budget = static_cast<std::int64_t>(static_cast<double>(bytes_of(files)) * budget_share);
  std::vector<std::int64_t> held(files.size());
  FleetCoverage coverage{{}, std::vector<double>(static_cast<std::size_t>(weeks))};
  PlanningFacts facts;
  facts.rotation_due = true;
  facts.free_disk_bytes = std::int64_t{1} << 50;
  for (int number = 0; number < clients; ++number) {
    const ArtifactRotationSettings settings = budget_of(budget, 0x5EED0000u + static_cast<std::uint64_t>(number));
    RotationStateRef state;
    std::vector<bool> seen(files.size());
    for (std::size_t week = 0; week < coverage.seen.size(); ++week) {
      const RotationPlan plan = builtin_plan_rotation(artifacts, settings, state, facts);
      const RotationSelection& selection = plan.selection;
      state = plan.candidate_state;
      for (std::size_t index = 0; index < files.size(); ++index) {
        if (selection.roles[index] != RotationSelection::Role::Selected) continue;
        ++held[index];
        seen[index] = true;
      }
      coverage.seen[week] += static_cast<double>(std::ranges::count(seen, true)) / static_cast<double>(files.size()) / clients;
    }
  }
  for (std::size_t index = 0; index < files.size(); ++index) coverage.held[files[index].path] = held[index];
  return coverage;
}

}  // namespace brackenfen::sync
