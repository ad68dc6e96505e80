#include <map>

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

class ConstructionTest : public testing::Test, protected SyncSetup {};

TEST_F(ConstructionTest, restoresTheManifestAndRewritesOneThatHoldsRetiredFiles) {
  const std::string good = R"({"era_number":7,"version":2,"files":{}})";
  const std::string no_vocabulary = "Failed to load vocabulary from disk: manifest is missing per-universe vocabulary.json entries";
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {good, good, no_vocabulary},
      {R"({"version":2,"files":{"found_signals/p/e/signal_is/pnl_long.arrow":{},"a":{}}})", R"({"version": 2, "files": {"a": {}}})",
       no_vocabulary},
      {"{", "{", "Failed to load manifest from disk: "},
  };
  for (const auto& [content, afterwards, warning] : rows) {
    SCOPED_TRACE(content);
    log.clear();
    directory.write("manifest.json", content);
    const auto manager = open();
    EXPECT_EQ(manager->get_manifest() ? manager->get_manifest()->version() : Value(), content == "{" ? Value() : Value(2));
    EXPECT_EQ(directory.read("manifest.json"), afterwards);
    EXPECT_THAT(warnings(), ElementsAre(StartsWith(warning)));
  }
  EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(ConstructionTest, holdsAPathOnceHoweverManyDocumentsNameIt) {
  const auto paths_in = [](const Document& members) {
    std::map<std::string, const void*> texts;
    for (const Member& member : members) texts.emplace(member.key.str(), member.key.view().data());
    return texts;
  };
  directory.write("manifest.json", R"({"files": {"b": {}, "a": {}, "c/d": {}}})");
  directory.write(".sync_hash_cache.json", R"({"version": 1, "files": {"a": {}, "b": {}, "c/d": {}}})");
  directory.write("feature-rotation-state.json", R"({"schema_version": 1, "active_relative_paths": ["c/d", "b", "a"], "generation": 1,
                                                     "seed": 1, "rng_state": "x"})");
  const auto manager = open();
  std::map<std::string, const void*> active;
  for (const Text& path : manager->_active_rotation_state.get()->active_relative_paths()) active.emplace(path.str(), path.view().data());
  EXPECT_THAT(active, SizeIs(3));
  EXPECT_EQ(active, paths_in(*manager->get_manifest()->files().if_document()));
  EXPECT_EQ(active, paths_in(manager->hash_cache().entries()));
}

}  // namespace
}  // namespace brackenfen::sync
