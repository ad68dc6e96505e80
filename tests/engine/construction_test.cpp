#include <map>

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

class ConstructionTest : public testing::Test, protected SyncSetup {};

struct NotCallable : TokenSource {
  std::string token() override { return {}; }
  std::optional<std::string> type_where_not_callable() const override { return "<class 'int'>"; }
};

TEST_F(ConstructionTest, refusesBadArgumentsOneAfterTheOther) {
  SyncManager::Options bad = options();
  bad.get_token = std::make_shared<NotCallable>();
  bad.server_url = "";
  bad.data_dir = directory / "missing";
  const auto failure = [&] { return failure_of([&] { return std::make_shared<SyncManager>(bad); }); };
  EXPECT_EQ(failure(), "TypeError: get_token must be callable, got <class 'int'>");
  bad.get_token = token_source;
  EXPECT_EQ(failure(), "ValueError: server_url must not be empty");
  bad.server_url = "http://example.com";
  EXPECT_THAT(failure(), StartsWith("ValueError: "));
  bad.server_url = "https://example.com";
  EXPECT_EQ(failure(), "FileNotFoundError: data_dir does not exist: " + bad.data_dir);
  bad.data_dir = directory.write("missing", "a file");
  EXPECT_EQ(failure(), "FileNotFoundError: data_dir does not exist: " + bad.data_dir);
  EXPECT_EQ(failure_of([&] { return SyncManager::get_or_create(bad); }), failure());
  EXPECT_THAT(SyncManager::_instances(), IsEmpty()) << "a failed construction leaves no entry";
}

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

TEST_F(ConstructionTest, aManagerOfTheDirectoryKeepsWhatALaterCallLeavesOut) {
  guard = std::make_shared<CallingGuard>([](auto...) {});
  const auto first = SyncManager::get_or_create(options());
  SyncManager::Options again = options();
  again.runtime_freshness_guard = nullptr;
  EXPECT_EQ(SyncManager::get_or_create(again), first);
  EXPECT_EQ(first->runtime_freshness_guard.get(), guard);
  again.server_url = "https://other.example";
  again.get_token = fixed_token("newer");
  EXPECT_EQ(failure_of([&] { return SyncManager::get_or_create(again); }), "ValueError: SyncManager for '" + directory.path() +
                                                                               "' already exists with server_url='" + server.url() +
                                                                               "', cannot reuse with server_url='https://other.example'");
  EXPECT_EQ(first->_get_token.get(), token_source) << "a refused call changes nothing";
}

}  // namespace
}  // namespace brackenfen::sync
