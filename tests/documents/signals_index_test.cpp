#include "sync/documents/signals_index.hpp"

#include "sync/base/sha256.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/temporary_directory.hpp"

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

TEST(FoundPnl, ofAMembershipHasTheKindOfItsSection) {
  struct Row {
    const char* name;
    std::string files, found_signals, found_strategies;
    std::string failure = "";
  };
  const auto listing = [](const char* entity_path) { return R"({"e": {"files": [")"s + entity_path + R"("]}})"; };
  const auto failure = [](const char* path, const char* section, const char* expected, const char* path_section) {
    return "ManifestError: membership-referenced found PnL file '"s + path + "' in " + section +
           " has missing or unclassifiable kind; expected " + expected + " for " + path_section +
           "; allowed found PnL kinds are found_signal_is_pnl, found_strategy_is_epoch_pnl";
  };
  const std::string signal_file = R"({"found_signals/p/e/signal_is/pnl.arrow": {"kind": "found_signal_is_pnl"}})";
  const Row rows[] = {
      {"fits", signal_file, listing(SIGNAL), "{}"},
      {"no PnL path", "{}", listing("features/x"), listing("also/this")},
      {"odd entries", "{}", R"({"a": 1, "b": {"files": "x"}, "c": {"files": [7, null]}, "d": {}})", "{}"},
      {"not listed", "{}", listing(SIGNAL), "{}", failure(SIGNAL, "found_signals", "found_signal_is_pnl", "found_signals")},
      {"entry of another shape", R"({"found_signals/p/e/signal_is/pnl.arrow": 5})", listing(SIGNAL), "{}",
       failure(SIGNAL, "found_signals", "found_signal_is_pnl", "found_signals")},
      {"of another section", R"({"found_strategies/p/e/strategy_is/pnl.arrow": {"kind": "found_signal_is_pnl"}})", listing(STRATEGY), "{}",
       failure(STRATEGY, "found_signals", "found_signal_is_pnl", "found_strategies")},
      {"of a kind that is not this section's", R"({"found_strategies/p/e/strategy_is/pnl.arrow": {"kind": "found_signal_is_pnl"}})", "{}",
       listing(STRATEGY), failure(STRATEGY, "found_strategies", "found_strategy_is_epoch_pnl", "found_strategies")},
      {"the first of two", "{}", R"({"z": {"files": ["found_signals/z/signal_is/pnl.arrow", "found_signals/a/signal_is/pnl.arrow"]}})",
       "{}", failure("found_signals/a/signal_is/pnl.arrow", "found_signals", "found_signal_is_pnl", "found_signals")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Manifest manifest(*Neighbours::builtin().bind(), Document{{"files", document(row.files)}});
    manifest.set_sections({document(row.found_signals), document(row.found_strategies),
                           document(R"({"u": {"files": ["useful_signals/x/signal_os/pnl.arrow"]}})")});
    EXPECT_EQ(failure_of([&] { return _validate_membership_referenced_found_pnl_kinds(manifest), 0; }), row.failure);
  }
  EXPECT_EQ(_membership_referenced_files(document(R"({"a": {"files": ["x", 7, "y"]}, "b": {"files": ["x"]}})")),
            (std::set<std::string>{"x", "y"}));
  EXPECT_TRUE(_membership_referenced_files(List{"x"}).empty());
}

TEST(SignalsIndex, isFoundByPointerOrByListing) {
  const std::string listed = R"("files": {"signals_index.json": {"kind": "signals_index"}})";
  const std::string must_reference = "ManifestError: manifest signals_index must reference signals_index.json";
  const std::string must_be_listed = "ManifestError: manifest signals_index must be present in files as signals_index.json";
  struct Row {
    std::string manifest, of_record, of_data;
  };
  const Row rows[] = {
      {"{" + listed + "}", "signals_index.json", "signals_index.json"},
      {R"({"signals_index": " ./signals_index.json", )" + listed + "}", "signals_index.json", "signals_index.json"},
      {R"({"files": {"signals_index.json": {"kind": "data"}}})", "", ""},
      {R"({"files": {"signals_index.json": []}, "signals_index": null})", "", ""},
      {R"({"files": []})", "", ""},
      {R"({"signals_index": "a//b", )" + listed + "}", must_reference, "a/b"},
      {R"({"signals_index": 5, )" + listed + "}", must_reference, "5"},
      {R"({"signals_index": "signals_index.json", "files": {}})", must_be_listed, "signals_index.json"},
      {R"({"signals_index": "signals_index.json", "files": {"signals_index.json": 1}})", must_be_listed, "signals_index.json"},
      {R"({"signals_index": "signals_index.json", "files": 7})", must_be_listed, "signals_index.json"},
      {R"({"signals_index": ""})", "ManifestError: Manifest file path must be a non-empty relative path",
       "ManifestError: Manifest file path must be a non-empty relative path"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.manifest);
    const auto outcome = [](auto look) {
      std::string found;
      const std::string failure = failure_of([&] { return found = look().value_or(""); });
      return failure + found;
    };
    const Manifest manifest(*Neighbours::builtin().bind(), document(row.manifest));
    EXPECT_EQ(outcome([&] { return _manifest_signals_index_path(manifest); }), row.of_record);
    EXPECT_EQ(outcome([&] { return _manifest_data_signals_index_path(document(row.manifest)); }), row.of_data);
  }
  EXPECT_EQ(_manifest_data_signals_index_path(List()), std::nullopt);
}

TEST(SignalsIndex, isAppliedAsAWholeOrNotAtAll) {
  struct Row {
    const char* name;
    std::string body, failure = "";
    Value manifest_era = 12;
  };
  const Row rows[] = {
      {"complete", R"({"era_number": 12, "found_signals": {"a": 1}, "found_strategies": {}, "useful_signals": {"c": {}}, "more": 1})"},
      {"a text for the era", R"({"era_number": " 12 "})"},
      {"no era", R"({"era_number": null})", "", "x"},
      {"another era", R"({"era_number": "13"})", "EraError: signals_index.json era_number=13 does not match manifest era_number=12"},
      {"an era that is none", R"({"era_number": "x"})", "EraError: signals_index.json has invalid era_number='x'"},
      {"an era of the wrong shape", R"({"era_number": [1]})", "EraError: signals_index.json has invalid era_number=[1]"},
      {"a manifest era that is none", R"({"era_number": 12})", "EraError: signals_index.json has invalid era_number=12", "x"},
      {"a list", "[]", "ManifestError: signals_index.json must contain a JSON object"},
      {"a section that is a list", R"({"found_strategies": {"b": 1}, "found_signals": []})",
       "ManifestError: signals_index.json found_signals must be a JSON object"},
      {"the last section null", R"({"found_signals": {"b": 1}, "useful_signals": null})",
       "ManifestError: signals_index.json useful_signals must be a JSON object"},
      {"truncated", R"({"found_signals": {"a)",
       "ManifestError: Invalid signals_index.json JSON: Unterminated string starting at: line 1 column 20 (char 19)"},
      {"empty", "", "ManifestError: Invalid signals_index.json JSON: Expecting value: line 1 column 1 (char 0)"},
      {"a byte order mark", "\xef\xbb\xbf{}",
       "ManifestError: Invalid signals_index.json JSON: Unexpected UTF-8 BOM (decode using utf-8-sig): line 1 column 1 (char 0)"},
      {"no UTF-8", "{\"a\": \"\xff\"}",
       "ManifestError: Invalid signals_index.json UTF-8: 'utf-8' codec can't decode byte 0xff in position 7: invalid start byte"},
  };
  const TemporaryDirectory directory;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Manifest manifest(*Neighbours::builtin().bind(), Document{{"era_number", row.manifest_era},
                                                              {"files", document(R"({"signals_index.json": {"kind": "signals_index"}})")}});
    const Document before{{"before", 1}};
    manifest.set_sections({before, before, before});
    EXPECT_EQ(failure_of([&] { return _validate_signals_index_bytes(row.body, manifest), 0; }), row.failure);
    const Manifest::Sections after = manifest.sections();
    const Document wanted = row.failure.empty() ? document(row.body) : Document();
    const auto section = [&](const char* name) { return row.failure.empty() ? wanted.get(name) : Value(before); };
    EXPECT_EQ(Value(after.found_signals),
              row.failure.empty() && section("found_signals").is_null() ? Value(Document()) : section("found_signals"));
    EXPECT_EQ(Value(after.useful_signals),
              row.failure.empty() && section("useful_signals").is_null() ? Value(Document()) : section("useful_signals"));

    if (row.failure.find("UTF-8:") != std::string::npos) continue;  // local text that does not decode stays what it is
    directory.write("signals_index.json", row.body);
    EXPECT_EQ(failure_of([&] { return _load_manifest_signals_index(directory.path(), manifest); }), row.failure);
  }
}

TEST(SignalsIndex, isLoadedFromTheDirectoryOrElseFromTheOther) {
  const TemporaryDirectory staged, live;
  Manifest manifest(*Neighbours::builtin().bind(), Document{{"files", document(R"({"signals_index.json": {"kind": "signals_index"}})")}});
  const auto load = [&](const std::optional<std::string>& fallback) {
    return failure_of([&] { return _load_manifest_signals_index(staged.path(), manifest, fallback); });
  };
  EXPECT_EQ(load(std::nullopt), "SyncError: signals_index.json missing from local sync: signals_index.json");
  EXPECT_EQ(load(live.path()), "SyncError: signals_index.json missing from local sync: signals_index.json");
  live.write("signals_index.json", R"({"found_signals": {"live": 1}})");
  EXPECT_EQ(load(live.path()), "");
  EXPECT_TRUE(manifest.sections().found_signals.contains("live"));
  staged.write("signals_index.json", R"({"found_signals": {"staged": 1}})");
  EXPECT_EQ(load(live.path()), "");
  EXPECT_TRUE(manifest.sections().found_signals.contains("staged"));
  staged.write("signals_index.json", "\xff");
  EXPECT_EQ(load(live.path()).substr(0, 19), "UnicodeDecodeError:");
  Manifest without(*Neighbours::builtin().bind(), Document());
  EXPECT_FALSE(_load_manifest_signals_index(staged.path(), without));
}

TEST(SignalsIndex, losesMissingPathsTogetherWithTheManifest) {
  const TemporaryDirectory directory;
  const auto scrub = [&](const Document& manifest_data, const std::set<std::string>& missing) {
    return _scrub_missing_found_pnl_paths_from_signals_index(Files::real(), Clock::real(), directory.path(), manifest_data, missing);
  };
  const Document manifest =
      document(R"({"version": 3, "files": {"signals_index.json": {"size_bytes": 1, "sha256": "x", "note": 2}, "a": {}},
                                         "signals_index": "signals_index.json"})");
  const std::string index = R"({"useful_signals": {"u": {"files": ["found_signals/p/e/signal_is/pnl.arrow"]}},
    "found_signals": {"both": {"z": 1, "files": ["a", "found_signals/p/e/signal_is/pnl.arrow"]}}, "era_number": 12, "more": []})";
  EXPECT_TRUE(scrub(manifest, {SIGNAL}).first.same_as(manifest)) << "there is no index to scrub";
  directory.write("signals_index.json", index);
  for (const auto& [data, missing] : {std::pair(manifest, std::set<std::string>{"a"}), std::pair(manifest, std::set<std::string>{STRATEGY}),
                                      std::pair(Document(), std::set<std::string>{SIGNAL})}) {
    const auto [kept, update] = scrub(data, missing);
    EXPECT_TRUE(kept.same_as(data) && !update);
  }
  EXPECT_EQ(directory.read("signals_index.json"), index);

  const auto [kept, update] = scrub(manifest, {SIGNAL});
  const std::string written =
      R"({"era_number": 12, "found_signals": {"both": {"files": ["a"], "z": 1}}, "more": [], "useful_signals": {}})";
  EXPECT_EQ(directory.read("signals_index.json"), written);
  ASSERT_TRUE(update);
  EXPECT_EQ(std::tie(update->relative_path, update->local_path, update->kind, update->sha256),
            std::tuple("signals_index.json", directory / "signals_index.json", "signals_index", _sha256(written)));
  const Document entry{{"size_bytes", written.size()}, {"sha256", _sha256(written)}, {"note", 2}, {"kind", "signals_index"}};
  EXPECT_EQ(json_of(kept), json_of(manifest.with("files", manifest.get("files").if_document()->with("signals_index.json", entry))));

  for (const auto& [content, failure] : {std::pair("[]", "ManifestError: signals_index.json must contain a JSON object"),
                                         std::pair("{",
                                                   "ManifestError: Invalid signals_index.json JSON: "
                                                   "Expecting property name enclosed in double quotes: line 1 column 2 (char 1)")}) {
    directory.write("signals_index.json", content);
    EXPECT_EQ(failure_of([&] { return scrub(manifest, {SIGNAL}), 0; }), failure);
  }
}

}  // namespace
}  // namespace brackenfen::sync
