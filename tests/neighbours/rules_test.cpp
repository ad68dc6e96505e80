// Small rules of the built-in neighbours: artifacts, settings, vocabularies, versions, platforms.
#include <gmock/gmock.h>

#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/neighbours/rotation_scope.hpp"
#include "sync/neighbours/rotation_settings.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace testing;

ArtifactsRef describe(const std::vector<std::pair<std::string, std::string>>& files) {
  std::vector<ArtifactRow> rows;
  for (const auto& [path, entry] : files) rows.push_back({path, parse_json(entry)});
  return ArtifactRotation::builtin().artifact_descriptors(std::move(rows));
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

TEST(Deployment, ordersVersions) {
  const Deployment& deployment = Deployment::builtin();
  // Equal versions stand together, from the oldest to the newest.
  const std::vector<std::string_view> ascending = split(
      "0.9, 1.0.dev1|1.dev01, 1.0a1.dev2, 1.0a1|1.0-ALPHA.1, 1.0b|1.0beta0, 1.0rc1|v1.0c1|1.0pre1, 1|1.0|1.0.0+local.7| 1.0 , "
      "1.0.post1.dev3, 1.0.post1|1.0-1|1.0r1, 1.0.1, 1.9, 1.10, 1.99999999999999999999, 1!0.1",
      ", ");
  for (const std::string_view& left : ascending) {
    for (const std::string_view& right : ascending) {
      const int order = &left < &right ? -1 : &left > &right ? 1 : 0;
      for (const std::string_view version : split(right, "|")) {
        EXPECT_EQ(deployment.compare_versions(std::string(split(left, "|")[0]), Value(version)), order) << left << " and " << version;
      }
    }
  }
  for (const Value& bad : {Value(""), Value("one"), Value("1..2"), Value("1.0x"), Value("1.0+"), Value("1.0+a..b"), Value(), Value(1)}) {
    EXPECT_EQ(failure_of([&] { return deployment.compare_versions("1.0", bad); }), "ValueError: Invalid version: " + to_quoted(bad));
  }
}

TEST(Platform, isNamedByTheFirstRowThatFits) {
  const char* rows[][3] = {
      {"linux", "AMD64", "linux_x86_64"},    {"Linux", "ARM64", "linux_aarch64"}, {"Darwin", "x86_64", "macos_x86_64"},
      {"Windows", "ARM64", "windows_amd64"}, {"Darwin", "Power", "darwin_power"}, {"Linux", "RISCV64", "linux_riscv64"},
  };
  for (const auto& [system, machine, platform] : rows) EXPECT_EQ(platform_name(system, machine), platform);
  EXPECT_EQ(current_platform(), _detect_platform());
}

}  // namespace
}  // namespace brackenfen::sync
