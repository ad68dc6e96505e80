#include "sync/documents/signals_index.hpp"

#include "tests/documents/values.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::string_literals;

constexpr const char* SIGNAL = "found_signals/p/e/signal_is/pnl.arrow";
constexpr const char* STRATEGY = "found_strategies/p/e/strategy_is/pnl.arrow";
constexpr const char* USEFUL = "useful_signals/p/e/signal_os/pnl.arrow";
constexpr const char* LISTED = R"({"signals_index.json": {"kind": "signals_index"}})";

Manifest record(const Document& data) { return {*Neighbours::builtin().bind(), data}; }

TEST(FoundPnl, isRecoverableWherePathAndKindAgree) {
  const std::tuple<const char*, const char*, std::set<std::string>> rows[] = {
      {SIGNAL, "found_signals", {"found_signal_is_pnl"}},
      {STRATEGY, "found_strategies", {"found_strategy_is_epoch_pnl"}},
      {USEFUL, "useful_signals", {"useful_signal_os_pnl", "useful_signal_strategy_is_pnl"}},
      {"found_signals/p/e/strategy_is/pnl.arrow", "", {}},
      {"found_signals/p/e/signal_is/xpnl.arrow", "", {}},
  };
  for (const auto& [path, section, kinds] : rows) {
    EXPECT_EQ(_found_pnl_section_for_path(path).value_or(""), section) << path;
    for (const char* kind :
         {"found_signal_is_pnl", "found_strategy_is_epoch_pnl", "useful_signal_os_pnl", "useful_signal_strategy_is_pnl", "feature"})
      EXPECT_EQ(_is_manifest_found_pnl_file(path, Document{{"kind", kind}}), kinds.contains(kind)) << path << kind;
  }
}

TEST(FoundPnl, isTakenOutOfFilesAndMembership) {
  const Document manifest = document(R"({"version": 1,
    "files": {"found_signals/p/e/signal_is/pnl.arrow": {}, "useful_signals/p/e/signal_os/pnl.arrow": {}, "features/x": {}},
    "found_signals": {"only": {"files": ["found_signals/p/e/signal_is/pnl.arrow"]}, "wasEmpty": {"files": []},
                      "both": {"files": ["features/x", "found_signals/p/e/signal_is/pnl.arrow"], "score": 2}, "odd": 1},
    "found_strategies": [7], "useful_signals": {"kept": {"files": ["features/x"]}}})");
  const Document cleaned = _drop_missing_found_pnl_paths(manifest, {" found_signals//p/e/signal_is/pnl.arrow", "features/x", "../x"});
  EXPECT_EQ(json_of(cleaned), json_of(document(R"({"version": 1,
    "files": {"useful_signals/p/e/signal_os/pnl.arrow": {}, "features/x": {}},
    "found_signals": {"both": {"files": ["features/x"], "score": 2}, "odd": 1},
    "found_strategies": [7], "useful_signals": {"kept": {"files": ["features/x"]}}})")));
  EXPECT_TRUE(_drop_missing_found_pnl_paths(cleaned, {"features/x", STRATEGY}).same_as(cleaned));
  EXPECT_EQ(_normalize_found_pnl_paths({SIGNAL, "./"s + SIGNAL, 5, nullptr, "", "features/x", USEFUL}),
            (std::set<std::string>{SIGNAL, USEFUL}));
}

TEST(FoundPnl, ofAMembershipHasTheKindOfItsSection) {
  const auto listing = [](const std::string& path) { return R"({"e": {"files": [")" + path + R"("]}})"; };
  const auto files = [](const char* path, const char* entry) { return Document{{path, parse_json(entry)}}; };
  const auto failure = [](const char* path, const std::string& section, const char* expected, const char* path_section) {
    return "ManifestError: membership-referenced found PnL file '"s + path + "' in " + section +
           " has missing or unclassifiable kind; expected " + expected + " for " + path_section +
           "; allowed found PnL kinds are found_signal_is_pnl, found_strategy_is_epoch_pnl";
  };
  const char* of_signal = R"({"kind": "found_signal_is_pnl"})";
  const std::tuple<Document, std::string, std::string, std::string> rows[] = {
      {files(SIGNAL, of_signal), listing(SIGNAL), "{}", ""},
      {{}, listing("features/x"), listing("also/this"), ""},
      {{}, R"({"a": 1, "b": {"files": "x"}, "c": {"files": [7, null]}, "d": {}})", "{}", ""},
      {{}, listing(SIGNAL), "{}", failure(SIGNAL, "found_signals", "found_signal_is_pnl", "found_signals")},
      {files(SIGNAL, "5"), listing(SIGNAL), "{}", failure(SIGNAL, "found_signals", "found_signal_is_pnl", "found_signals")},
      {files(STRATEGY, of_signal), listing(STRATEGY), "{}", failure(STRATEGY, "found_signals", "found_signal_is_pnl", "found_strategies")},
      {{},
       listing("found_signals/z/signal_is/pnl.arrow\", \"found_signals/a/signal_is/pnl.arrow"),
       "{}",
       failure("found_signals/a/signal_is/pnl.arrow", "found_signals", "found_signal_is_pnl", "found_signals")},
  };
  for (const auto& [listed, found_signals, found_strategies, expected] : rows) {
    Manifest manifest = record({{"files", listed}});
    manifest.set_sections({document(found_signals), document(found_strategies), document(listing("useful_signals/x/signal_os/pnl.arrow"))});
    EXPECT_EQ(failure_of([&] { return _validate_membership_referenced_found_pnl_kinds(manifest), 0; }), expected);
  }
}

TEST(SignalsIndex, isFoundByPointerOrByListing) {
  const std::string listed = R"("files": )"s + LISTED + "}";
  const std::string must_reference = "ManifestError: manifest signals_index must reference signals_index.json";
  const std::string must_be_listed = "ManifestError: manifest signals_index must be present in files as signals_index.json";
  const std::string no_path = "ManifestError: Manifest file path must be a non-empty relative path";
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"{" + listed, "signals_index.json", "signals_index.json"},
      {R"({"signals_index": " ./signals_index.json", )" + listed, "signals_index.json", "signals_index.json"},
      {R"({"files": {"signals_index.json": {"kind": "data"}}})", "", ""},
      {R"({"signals_index": "a//b", )" + listed, must_reference, "a/b"},
      {R"({"signals_index": 5, )" + listed, must_reference, "5"},
      {R"({"signals_index": "signals_index.json", "files": {"signals_index.json": 1}})", must_be_listed, "signals_index.json"},
      {R"({"signals_index": ""})", no_path, no_path},
  };
  for (const auto& [manifest, of_record, of_data] : rows) {
    std::string found;
    const auto outcome = [&found](auto look) {
      found.clear();
      return failure_of([&] { return found = look().value_or(""); }) + found;
    };
    EXPECT_EQ(outcome([&, &data = manifest] { return _manifest_signals_index_path(record(document(data))); }), of_record) << manifest;
    EXPECT_EQ(outcome([&, &data = manifest] { return _manifest_data_signals_index_path(document(data)); }), of_data) << manifest;
  }
}

TEST(SignalsIndex, isMissedWhereItIsListed) {
  const TemporaryDirectory empty;
  Manifest listing = record({{"files", document(LISTED)}}), without = record({});
  EXPECT_EQ(failure_of([&] { return _load_manifest_signals_index(empty.path(), listing); }),
            "SyncError: signals_index.json missing from local sync: signals_index.json");
  EXPECT_FALSE(_load_manifest_signals_index(empty.path(), without));
}

}  // namespace
}  // namespace brackenfen::sync
