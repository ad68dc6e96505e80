#include <gmock/gmock.h>

#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/neighbours/rotation_scope.hpp"
#include "sync/neighbours/rotation_settings.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace testing;

const ArtifactRotation& rotation() { return ArtifactRotation::builtin(); }

ArtifactsRef describe(const std::vector<std::pair<std::string, std::string>>& files) {
  std::vector<ArtifactRow> rows;
  for (const auto& [path, entry] : files) rows.push_back({path, parse_json(entry)});
  return rotation().artifact_descriptors(std::move(rows));
}

TEST(ArtifactDescriptors, comeFromTheRowFirstAndFromThePathOtherwise) {
  struct Row {
    const char *path, *entry;
    bool mandatory;
    const char *market, *universe, *family, *subfamily;
  };
  const Row rows[] = {
      {"features/u/e/mom__fast__w1__z.arrow", R"({"kind": "feature"})", false, "", "u", "mom", "fast"},
      {"features/u/e/mom__fast__w1__z.arrow",
       R"({"kind": "feature", "named_universe": " v ", "market": "eu", "family": "f", "subfamily": "s"})", false, "eu", "v", "f", "s"},
      {"features/e/plain.arrow", R"({"kind": "feature", "mandatory": true})", true, "", "", "", ""},
      {"features/plain.arrow", R"({"kind": "feature", "mandatory": 0, "family": 7})", false, "", "", "", ""},
      {"found_signals/a/b/c/pnl.arrow", R"({"kind": "found_signal_is_pnl"})", true, "", "", "", ""},
      {"found_signals/a/b/c/pnl.arrow", R"({"mandatory": false})", false, "", "", "", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.entry);
    const ArtifactsRef artifacts = describe({{row.path, row.entry}});
    const ArtifactDescriptor& artifact = artifacts->descriptors.front();
    EXPECT_EQ(artifact.mandatory, row.mandatory);
    EXPECT_EQ(artifact.is_optional_feature(), !row.mandatory && artifact.kind.view() == "feature");
    EXPECT_EQ(artifact.market.view(), row.market);
    EXPECT_EQ(artifact.named_universe.view(), row.universe);
    EXPECT_EQ(artifact.family.view(), row.family);
    EXPECT_EQ(artifact.subfamily.view(), row.subfamily);
  }
}

TEST(RotationSettings, drawASeedWhereNoneIsStored) {
  const TemporaryDirectory directory;
  const auto draw = [&] { return RotationSettings::builtin().load_rotation_settings(directory.path(), {}, {}).rotation_seed; };
  const Value drawn = draw();
  EXPECT_NE(drawn, draw());
  EXPECT_GE(compare_integers(drawn, 0), 0);
}

TEST(ScopedVocabulary, losesTheFeaturesThatTheRotationDoesNotHold) {
  const ArtifactsRef artifacts = describe({{"features/u/signal_is/a.arrow", R"({"kind": "feature"})"},
                                           {"features/u/signal_is/b.arrow", R"({"kind": "feature"})"},
                                           {"features/u/strategy_is/b.arrow", R"({"kind": "feature"})"},
                                           {"features/v/signal_is/c.arrow", R"({"kind": "feature"})"}});
  const TextSet active{"features/u/strategy_is/b.arrow"};
  struct Row {
    const char *vocabulary, *scoped;
  };
  const Row rows[] = {
      {R"({"named_universe": "u", "features": {"a": 1, "b": 2, "c": 3, "derived": 4}, "x": 0})",
       R"({"named_universe": "u", "features": {"b": 2, "c": 3, "derived": 4}, "x": 0})"},
      {R"({"features": {"a": 1, "b": 2, "c": 3}})", R"({"features": {"b": 2}})"},
      {R"({"features": ["a", {"name": "b"}, {"name": "a"}, 7]})", R"({"features": [{"name": "b"}, 7]})"},
      {R"({"features": "all"})", R"({"features": "all"})"},
  };
  for (const Row& row : rows) {
    const Value scoped(builtin_scoped_vocabulary(*parse_json(row.vocabulary).if_document(), active, *artifacts));
    EXPECT_EQ(write_json(scoped, JsonForm::InsertionOrder), row.scoped);
  }
}

TEST(CleanUpKeepPaths, areWhatIsProtectedAndWhateverIsNoFeature) {
  const Value files = parse_json(R"({"features/a": {"kind": "feature"}, "found/b": {"kind": "pnl"}, "c": {}, "d": 1})");
  const TextSet keep = rotation().rotation_cleanup_keep_paths(files, {"features/p"}, {"manifest.json"});
  EXPECT_THAT(std::vector<std::string>(keep.begin(), keep.end()), UnorderedElementsAre("features/p", "manifest.json", "found/b", "c", "d"));
}

}  // namespace
}  // namespace brackenfen::sync
