#include "sync/documents/signals_index.hpp"

#include "sync/documents/vocabulary.hpp"
#include "tests/documents/values.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::string_literals;

constexpr const char* SIGNAL = "found_signals/p/e/signal_is/pnl.arrow";
constexpr const char* STRATEGY = "found_strategies/p/e/strategy_is/pnl.arrow";
constexpr const char* USEFUL = "useful_signals/p/e/signal_os/pnl.arrow";
constexpr const char* USEFUL_STRATEGY = "useful_signals/p/e/strategy_is/pnl.arrow";

TEST(FoundPnl, isRecoverableWherePathAndKindAgree) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {SIGNAL, "found_signals", R"(["found_signal_is_pnl"])"},
      {STRATEGY, "found_strategies", R"(["found_strategy_is_epoch_pnl"])"},
      {USEFUL, "useful_signals", R"(["useful_signal_os_pnl", "useful_signal_strategy_is_pnl"])"},
      {USEFUL_STRATEGY, "useful_signals", R"(["useful_signal_os_pnl", "useful_signal_strategy_is_pnl"])"},
      {"found_signals/signal_is/pnl.arrow", "found_signals", R"(["found_signal_is_pnl"])"},
      {"found_signals/p/e/strategy_is/pnl.arrow", "", "[]"},
      {"found_signals/p/e/signal_is/xpnl.arrow", "", "[]"},
  };
  for (const auto& [path, section, kinds] : rows) {
    EXPECT_EQ(_found_pnl_section_for_path(path).value_or(""), section) << path;
    std::vector<Value> recoverable;
    for (const Value kind :
         {"found_signal_is_pnl", "found_strategy_is_epoch_pnl", "useful_signal_os_pnl", "useful_signal_strategy_is_pnl", "feature"}) {
      if (_is_manifest_found_pnl_file(path, Document{{"kind", kind}})) recoverable.push_back(kind);
    }
    EXPECT_EQ(json_of(List(std::move(recoverable))), kinds) << path;
  }
  EXPECT_FALSE(_is_manifest_found_pnl_file(SIGNAL, nullptr));
  EXPECT_TRUE(is_found_pnl_file_kind("found_signal_is_pnl"));
  EXPECT_FALSE(is_found_pnl_file_kind("useful_signal_os_pnl"));
}

TEST(FoundPnl, isTakenOutOfFilesAndMembership) {
  const Document manifest = document(R"({"version": 1,
    "files": {"found_signals/p/e/signal_is/pnl.arrow": {}, "useful_signals/p/e/signal_os/pnl.arrow": {}, "features/x": {}},
    "found_signals": {"only": {"files": ["found_signals/p/e/signal_is/pnl.arrow"]},
                      "both": {"files": ["features/x", "found_signals/p/e/signal_is/pnl.arrow"], "score": 2}, "odd": 1},
    "found_strategies": [7], "useful_signals": {"kept": {"files": ["features/x"]}}})");
  const Document cleaned = _drop_missing_found_pnl_paths(manifest, {" found_signals//p/e/signal_is/pnl.arrow", "features/x", "../x"});
  EXPECT_EQ(json_of(cleaned), json_of(document(R"({"version": 1,
    "files": {"useful_signals/p/e/signal_os/pnl.arrow": {}, "features/x": {}},
    "found_signals": {"both": {"files": ["features/x"], "score": 2}, "odd": 1},
    "found_strategies": [7], "useful_signals": {"kept": {"files": ["features/x"]}}})")));
  EXPECT_TRUE(cleaned.get("useful_signals").same_as(manifest.get("useful_signals")));

  EXPECT_TRUE(_drop_missing_found_pnl_paths(manifest, {}).same_as(manifest));
  EXPECT_TRUE(_drop_missing_found_pnl_paths(manifest, {"features/x"}).same_as(manifest));
  EXPECT_TRUE(_drop_missing_found_pnl_paths(manifest, {STRATEGY}).same_as(manifest));
  EXPECT_EQ(json_of(_drop_missing_found_pnl_paths(document(R"({"useful_signals": {"wasEmpty": {"files": []}}})"), {STRATEGY})),
            R"({"useful_signals": {}})");
  EXPECT_EQ(_normalize_found_pnl_paths({SIGNAL, "./"s + SIGNAL, 5, nullptr, "", "features/x", USEFUL}),
            (std::set<std::string>{SIGNAL, USEFUL}));
}

TEST(FoundPnl, ofADownloadIsRecoverableOnlyFor404) {
  const Document plan{{SIGNAL, Document{{"kind", FOUND_SIGNAL_PNL_KIND}}}, {STRATEGY, Document{{"kind", "feature"}}}};
  const std::tuple<Error, std::optional<std::string>> rows[] = {
      {PermanentDownloadError("x", SIGNAL, 404), SIGNAL},         {PermanentDownloadError("x", SIGNAL, 403), std::nullopt},
      {PermanentDownloadError("x", STRATEGY, 404), std::nullopt}, {PermanentDownloadError("x", USEFUL, 404), std::nullopt},
      {PermanentDownloadError("x", 5, 404), std::nullopt},        {SyncError("x"), std::nullopt},
  };
  for (const auto& [error, path] : rows) EXPECT_EQ(_missing_found_pnl_download_path(error, plan), path);
}

TEST(Vocabulary, universeIsOneSafeSegment) {
  const std::pair<Value, std::string> accepted[] = {{" us ", "us"}, {5, "5"}, {true, "True"}, {"...", "..."}};
  for (const auto& [universe, name] : accepted) EXPECT_EQ(_validate_named_universe(universe), name);
  const std::pair<Value, std::string> refused[] = {
      {nullptr, "named_universe is required"},
      {" ..", "named_universe must be a single safe path segment: ' ..'"},
      {"a/b", "named_universe must be a single safe path segment: 'a/b'"},
      {"a\0b"s, "named_universe must be a single safe path segment: 'a\\x00b'"},
  };
  for (const auto& [universe, text] : refused) {
    EXPECT_EQ(error_text(error_class::SyncError, [&universe = universe] { return _validate_named_universe(universe); }), text);
  }
}

TEST(Vocabulary, isToldByItsPath) {
  NeighbourSet& neighbours = *Neighbours::builtin().bind();
  const std::pair<Value, std::optional<std::string>> rows[] = {
      {"named_universes/us/vocabulary.json", "us"},
      {" named_universes\\us//vocabulary.json", "us"},
      {"named_universes/vocabulary.json", std::nullopt},
      {"named_universes/a/b/vocabulary.json", std::nullopt},
      {"x/us/vocabulary.json", std::nullopt},
      {"named_universes/../vocabulary.json", std::nullopt},
      {7, std::nullopt},
  };
  for (const auto& [path, universe] : rows) EXPECT_EQ(_vocabulary_named_universe_from_path(neighbours, path), universe) << json_of(path);
  error_text(error_class::SyncError, [&] { return _vocabulary_named_universe_from_path(neighbours, "named_universes/ /vocabulary.json"); });
}

}  // namespace
}  // namespace brackenfen::sync
