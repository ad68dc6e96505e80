#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <set>

#include "sync/neighbours/rotation_order.hpp"
#include "sync/neighbours/rotation_planner.hpp"
#include "sync/neighbours/rotation_state.hpp"
#include "tests/support/rotation_fleet.hpp"

namespace brackenfen::sync {
namespace {

using namespace testing;

std::vector<std::string> texts(const TextList& paths) { return {paths.begin(), paths.end()}; }
std::set<std::string> active(const RotationSelection& selection) {
  return {selection.active_relative_paths.begin(), selection.active_relative_paths.end()};
}

TEST(RotationOrder, isTheFormulaThatTheDocumentationTells) {
  // docs/rotation.md works this example out.
  const RotationOrder order(7, 3);
  EXPECT_EQ(order.rng_state(), "daa66d2c7ddf7446");
  EXPECT_EQ(order.rank("features/liquid/signal_is/momentum__fast__"), 0xdb8339f63f1936c7U);
  EXPECT_EQ(low_64_bits(Value::integer_from_decimal("-18446744073709551617")), ~0ULL);
  EXPECT_EQ(low_64_bits(Value::integer_from_decimal("36893488147419103233")), 1U);
  EXPECT_EQ(rotation_unit("features/u/e/a__b__c__d.arrow"), "features/u/e/a__b__");
  EXPECT_EQ(rotation_unit("features/u/e__x__y/a__b.arrow"), "features/u/e__x__y/a__b.arrow");
  EXPECT_EQ(rotation_unit("features/u/e/__b__c.arrow"), "features/u/e/__b__c.arrow");
}

TEST(RotationPlanner, aYearOfAThousandClientsCoversEveryFeatureEvenly) {
  constexpr int CLIENTS = 1000;
  constexpr int WEEKS = 52;
  const FleetCoverage coverage = run_fleet(CLIENTS, WEEKS, make_features(100, 3), 0.2);
  std::map<std::string_view, std::int64_t> of_unit;
  for (const auto& [path, held] : coverage.held) {
    const double share = static_cast<double>(held) / (CLIENTS * WEEKS);
    EXPECT_GT(share, 0.175) << path;
    EXPECT_LT(share, 0.215) << path;
    EXPECT_EQ(of_unit.emplace(rotation_unit(path), held).first->second, held) << "companions come and go together: " << path;
  }
  EXPECT_GT(coverage.seen[11], 0.9);
  EXPECT_GT(coverage.seen[51], 0.9999);
}

TEST(RotationPlanner, theGenerationAdvancesWhenItIsTime) {
  struct Row {
    const char* name;
    bool has_state, scoped, due;
    std::int64_t rotated_at, frequency;
    int generation;
  };
  constexpr std::int64_t NOW = 1'000'000;
  const Row rows[] = {{"no state", false, true, false, 0, 0, 1},
                      {"fresh", true, true, false, NOW - 99, 100, 4},
                      {"due by its own time", true, true, false, NOW - 100, 100, 5},
                      {"due by the file", true, true, true, NOW, 100, 5},
                      {"no frequency", true, true, false, 0, 0, 4},
                      {"nothing that rotates", true, false, true, 0, 100, 4}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    auto state = std::make_shared<BuiltinRotationState>();
    state->generation_number = 4;
    state->seed_number = 77;
    state->rotated_at = row.rotated_at;
    PlanningFacts facts;
    facts.rotation_due = row.due;
    facts.now_seconds = NOW;
    facts.free_disk_bytes = 1000;
    if (row.frequency > 0) facts.frequency_seconds = row.frequency;
    ArtifactRotationSettings settings = budget_of(10, 78);
    settings.scoped = row.scoped;
    const RotationPlan plan = builtin_plan_rotation(make_artifacts({{"features/a.arrow", 1, !row.scoped}}), settings,
                                                    row.has_state ? RotationStateRef(state) : nullptr, facts);
    EXPECT_EQ(plan.candidate_state->generation(), Value(row.generation));
    EXPECT_EQ(plan.candidate_state->seed(), Value(row.generation == 4 ? 77 : 78)) << "another seed takes effect with the next rotation";
    EXPECT_EQ(plan.selection.seed, plan.candidate_state->seed());
    const auto& candidate = dynamic_cast<const BuiltinRotationState&>(*plan.candidate_state);
    EXPECT_EQ(candidate.rotated_at, Value(row.generation == 4 ? row.rotated_at : NOW));
  }
}

TEST(RotationPlanner, whatIsHereCostsNothingAndWhatComesMustFit) {
  struct Row {
    const char* name;
    Value budget;
    std::int64_t free_bytes;
    std::set<std::string> here;
    std::vector<std::string> selected;
    std::int64_t mandatory_bytes, feature_budget;
  };
  const std::vector<std::string> all = {"features/a", "features/b", "features/c"};
  // The order of seed 1, generation 1 is a, c, b.
  const Row rows[] = {
      {"all fits", {}, 1000, {}, all, 100, 810},
      {"a tenth is left free", {}, 180, {}, {"features/a", "features/c"}, 100, 72},
      {"mandatory files are here", {}, 100, {"m"}, all, 0, 90},
      {"everything is here", {}, 0, {"m", "features/a", "features/b", "features/c"}, all, 0, 0},
      {"an explicit budget", 60, 1000, {}, {"features/a", "features/c"}, 100, 60},
      {"a budget beyond the disk", 500, 150, {}, {"features/a"}, 100, 50},
      {"a budget beyond the disk, and files here", 500, 30, {"m", "features/a", "features/b"}, all, 0, 30},
      {"a budget below every feature", 29, 1000, {}, {}, 100, 29},
      {"no budget", 0, 1000, {}, {}, 100, 0},
      {"less room than mandatory files need", FULL_DOWNLOAD, 50, {}, {}, 100, 0},
  };
  const ArtifactsRef artifacts = make_artifacts({{"features/a", 30}, {"features/b", 30}, {"features/c", 30}, {"m", 100, true}});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ArtifactRotationSettings settings = budget_of(0);
    settings.feature_budget_bytes = row.budget;
    PlanningFacts facts;
    facts.free_disk_bytes = row.free_bytes;
    facts.present = [&](const Text& path, std::int64_t, const Value&) { return row.here.contains(path.str()); };
    const RotationSelection selection = builtin_plan_rotation(artifacts, settings, nullptr, facts).selection;
    std::vector<std::string> expected = row.selected;
    expected.emplace_back("m");
    EXPECT_EQ(texts(selection.active_relative_paths), expected);
    EXPECT_THAT(texts(selection.mandatory_relative_paths), ElementsAre("m"));
    EXPECT_THAT(selection.skipped_relative_paths, SizeIs(3 - row.selected.size()));
    EXPECT_EQ(selection.mandatory_bytes, Value(row.mandatory_bytes));
    EXPECT_EQ(selection.feature_budget_bytes, Value(row.feature_budget));
  }
}

TEST(RotationPlanner, aFullDiskRotatesSlowlyAndTheSelectionDoesNotShrink) {
  struct Row {
    const char* name;
    Value budget;
    double disk_share;  ///< of the data set
  };
  const Row rows[] = {
      {"everything that fits, half of it fits", {}, 0.5}, {"all of it fits", {}, 1.01}, {"budget of the disk's size", 500, 0.5}};
  const std::vector<PlannedFile> files = make_features(100, 1);
  const ArtifactsRef artifacts = make_artifacts(files);
  const auto bytes = [&](const std::set<std::string>& paths) {
    std::int64_t total = 0;
    for (const PlannedFile& file : files) total += paths.contains(file.path) ? file.size_bytes : 0;
    return total;
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto disk = static_cast<std::int64_t>(static_cast<double>(bytes_of(files)) * row.disk_share);
    std::set<std::string> here, ever;
    if (row.disk_share > 1) {
      for (const PlannedFile& file : files) here.insert(file.path);  // filled by someone who kept no reserve
    }
    ArtifactRotationSettings settings = budget_of(0);
    settings.feature_budget_bytes = row.budget;
    PlanningFacts facts;
    facts.rotation_due = true;
    facts.present = [&](const Text& path, std::int64_t, const Value&) { return here.contains(path.str()); };
    RotationStateRef state;
    std::int64_t first = 0;
    for (int week = 0; week < 60; ++week) {
      facts.free_disk_bytes = disk - bytes(here);
      const RotationPlan plan = builtin_plan_rotation(artifacts, settings, state, facts);
      state = plan.candidate_state;
      std::set<std::string> selected = active(plan.selection);
      here.insert(selected.begin(), selected.end());
      EXPECT_LE(bytes(here), disk) << "new files lie beside the old ones until these go";
      here = std::move(selected);
      ever.insert(here.begin(), here.end());
      if (week == 0) first = bytes(here);
      EXPECT_GE(bytes(here), first - 16) << "in week " << week;
    }
    EXPECT_GE(first, static_cast<std::int64_t>(static_cast<double>(disk) * 0.85));
    EXPECT_GT(ever.size(), row.disk_share > 1 ? 99U : 95U);
  }
}

TEST(RotationPlanner, anActiveStateIsHeldAsFarAsItIsStillThere) {
  auto state = std::make_shared<BuiltinRotationState>();
  state->active_paths = {"features/a", "features/departed", "features/u/e/other"};
  state->generation_number = 2;
  state->seed_number = 3;
  state->rotated_at = 17;
  ArtifactRotationSettings settings = budget_of(0);
  settings.scope.named_universes = List{"v"};
  PlanningFacts facts;
  const ArtifactsRef artifacts = make_artifacts({{"features/a", 5}, {"features/b", 5}, {"features/u/e/other", 5}, {"new", 9, true}});
  for (const auto plan_for : {builtin_plan_rotation, builtin_plan_from_active_rotation_state}) {
    facts.present = {};
    facts.free_disk_bytes = 14;
    const RotationPlan plan = plan_for(artifacts, settings, state, facts);
    EXPECT_THAT(texts(plan.selection.active_relative_paths), ElementsAre("features/a", "new"));
    EXPECT_THAT(texts(plan.selection.skipped_relative_paths), ElementsAre("features/b"));
    EXPECT_TRUE(equal_states(plan.candidate_state, state->with_active_relative_paths({"features/a", "new"}))) << "whatever the budget";
    facts.free_disk_bytes = 13;
    EXPECT_THAT(texts(plan_for(artifacts, settings, state, facts).selection.active_relative_paths), ElementsAre("new")) << "no room";
    facts.present = [](const Text& path, std::int64_t, const Value&) { return path.view() == "features/a"; };
    EXPECT_THAT(texts(plan_for(artifacts, settings, state, facts).selection.active_relative_paths), ElementsAre("features/a", "new"));
  }
  // Within a generation others come beside what is held, as far as the budget goes.
  facts.free_disk_bytes = 1000;
  for (const auto& [budget, active] : {std::pair(9, std::vector{"features/a", "new"}), {10, {"features/a", "features/b", "new"}}}) {
    settings.feature_budget_bytes = budget;
    const RotationPlan plan = builtin_plan_rotation(artifacts, settings, state, facts);
    EXPECT_THAT(texts(plan.selection.active_relative_paths), ElementsAreArray(active));
    EXPECT_EQ(plan.candidate_state->generation(), Value(2));
  }
}

}  // namespace
}  // namespace brackenfen::sync
