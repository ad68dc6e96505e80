#include "sync/documents/manifest_filters.hpp"

#include "sync/documents/manifest.hpp"
#include "tests/documents/values.hpp"

namespace brackenfen::sync {
namespace {

NeighbourSet& builtin_set() {
  static NeighbourSet& set = *Neighbours::builtin().bind();
  return set;
}

struct SanitiseCase {
  const char* name;
  const char* manifest;
  const char* cleaned;  ///< null where the same document must come back
};

const SanitiseCase SANITISE_CASES[] = {
    {"nothingToRemove", R"({"version": 3, "files": {"features/a.arrow": {"kind": "feature"}}, "artifacts": [7]})", nullptr},
    {"declarationPathGoesWhateverItsEntry", R"({"files": {"a.pxd": 7, "b.pxd": {}, "c": null}, "artifacts": [{"path": "a.pxd"}]})",
     R"({"files": {"c": null}, "artifacts": [{"path": "a.pxd"}]})"},
    {"declarationKindIsExact",
     R"({"files": {"a": {"kind": "vault_declaration"}, "b": {"kind": "Vault_declaration"}, "c": {"kind": "backtester_declaration"}}})",
     R"({"files": {"b": {"kind": "Vault_declaration"}}})"},
    {"unsupportedModulesGoFromFilesAndArtifacts",
     R"({"files": {"a": {"kind": "risk_module"}, "b": {"kind": "vault_module"}}, "artifacts": [{"kind": "risk_module"}, "risk_module", {}], "x": 1})",
     R"({"files": {"b": {"kind": "vault_module"}}, "artifacts": ["risk_module", {}], "x": 1})"},
    {"retiredPnlTakesItsReferencesAndEmptyEntities",
     R"({"files": {"found_signals/p/e/signal_is/pnl_long.arrow": {}, "keep": {}},
         "found_signals": {"emptied": {"files": ["found_signals/p/e/signal_is/pnl_long.arrow"]},
                           "shared": {"score": 1, "files": [5, "found_signals/p/e/signal_is/pnl_long.arrow", "keep"]},
                           "wasEmpty": {"files": []}, "noList": {"files": 1}, "noDocument": 2},
         "found_strategies": [1],
         "useful_signals": {"kept": {"files": ["found_signals/p/e/signal_is/pnl_long.arrow"]}}})",
     R"({"files": {"keep": {}},
         "found_signals": {"shared": {"score": 1, "files": [5, "keep"]}, "noList": {"files": 1}, "noDocument": 2},
         "found_strategies": [1],
         "useful_signals": {"kept": {"files": ["found_signals/p/e/signal_is/pnl_long.arrow"]}}})"},
    {"unlistedPnlKeepsItsReferences",
     R"({"files": {"keep": {}}, "found_signals": {"a": {"files": ["found_signals/p/e/signal_is/pnl_long.arrow"]}, "b": {"files": []}}})",
     nullptr},
};

TEST(Platform, isNamedByTheFirstRowThatFits) {
  const char* rows[][3] = {
      {"linux", "AMD64", "linux_x86_64"},    {"Linux", "ARM64", "linux_aarch64"}, {"Darwin", "x86_64", "macos_x86_64"},
      {"Windows", "ARM64", "windows_amd64"}, {"Darwin", "Power", "darwin_power"}, {"Linux", "RISCV64", "linux_riscv64"},
  };
  for (const auto& [system, machine, platform] : rows) EXPECT_EQ(platform_name(system, machine), platform);
  EXPECT_EQ(current_platform(), _detect_platform());
}

TEST(Manifest, setsAnEntryInFilesAndDocumentAtOnce) {
  Manifest record(builtin_set(), document(R"({"version": 2, "files": {"a": {"kind": "x"}, "gone.pxd": {}}})"));
  const Document before = record.data();
  record.set_file("a", document(R"({"kind": "y"})"));
  record.set_file("b", document(R"({"size_bytes": 1})"));
  EXPECT_EQ(json_of(record.data()), R"({"version": 2, "files": {"a": {"kind": "y"}, "b": {"size_bytes": 1}}})");
  EXPECT_TRUE(record.files().same_as(record.data().get("files")));
  EXPECT_EQ(json_of(before), R"({"version": 2, "files": {"a": {"kind": "x"}}})");

  Manifest listed(builtin_set(), document(R"({"files": []})"));
  EXPECT_EQ(failure_of([&] { return listed.set_file("a", Document()), 0; }).substr(0, 11), "TypeError: ");
}

TEST(ManifestFilters, removeWhatIsRetiredAndShareTheRest) {
  for (const SanitiseCase& row : SANITISE_CASES) {
    SCOPED_TRACE(row.name);
    const Document before = document(row.manifest);
    const Document cleaned = _sanitize_manifest_data_for_sync(builtin_set(), before);
    EXPECT_EQ(cleaned.same_as(before), row.cleaned == nullptr);
    EXPECT_EQ(json_of(before), json_of(document(row.manifest)));
    if (row.cleaned != nullptr) {
      EXPECT_EQ(json_of(cleaned), json_of(document(row.cleaned)));
    }
    EXPECT_TRUE(_sanitize_manifest_data_for_sync(builtin_set(), cleaned).same_as(cleaned));
  }
}

TEST(ManifestFilters, retiredPnlNeedsItsRootNameAndDepth) {
  const std::pair<const char*, bool> rows[] = {
      {"found_strategies/a/b/c/pnl.long.arrow", true},
      {"/found_signals/a/b/c/pnl.long.arrow/", true},
      {"\\found_signals\\a\\b\\c\\pnl_long.arrow\\", true},
      {"found_signals/a/b/c/d/pnl_long.arrow", false},
      {"useful_signals/a/b/c/pnl_long.arrow", false},
      {"xfound_signals/a/b/c/pnl_long.arrow", false},
      {"", false},
  };
  for (const auto& [path, retired] : rows)
    EXPECT_EQ(_manifest_has_retired_found_pnl_long_files(Document{{path, Document()}}), retired) << path;
  EXPECT_FALSE(_manifest_has_retired_found_pnl_long_files(List{"found_signals/a/b/c/pnl_long.arrow"}));
  EXPECT_TRUE(_manifest_has_agent_bundle_declarations(document(R"({"a": {}, "b.pxd": null})")));
  EXPECT_FALSE(_manifest_has_agent_bundle_declarations("b.pxd"));
}

TEST(ManifestFilters, retiredModuleIsKnownByThisPlatformOnly) {
  const std::string here = "-" + current_platform();
  const std::pair<std::string, std::optional<std::string>> rows[] = {
      {"backtester" + here + ".pyd", "backtester"},       {"modules\\x/risk_model" + here + ".so", "risk_model"},
      {"risk_model-plan9_mips.so", std::nullopt},         {"vault" + here + ".so", std::nullopt},
      {"backtester" + here + ".so/readme", std::nullopt},
  };
  for (const auto& [path, name] : rows) {
    EXPECT_EQ(_retired_unsupported_runtime_module_name_from_path(path), name) << path;
  }
}

TEST(ManifestFilters, excludeModulesOfOtherPlatformsFromTheSync) {
  const std::string here = R"({"kind": "vault_module", "platform": ")" + current_platform() + R"("})";
  const std::pair<std::string, bool> rows[] = {
      {here, false},
      {R"({"kind": "vault_module", "platform": "plan9_mips"})", true},
      {R"({"kind": "vault_module", "platform": 9})", true},
      {R"({"kind": "vault_module", "platform": null})", false},
      {R"({"kind": "feature", "platform": "plan9_mips"})", false},
      {R"([1])", false},
  };
  for (const auto& [entry, excluded] : rows) {
    EXPECT_EQ(_rotation_file_is_platform_excluded(builtin_set(), parse_json(entry)), excluded) << entry;
    EXPECT_EQ(_manifest_file_is_sync_excluded(builtin_set(), parse_json(entry)), excluded) << entry;
  }
  const Value unsupported = document(R"({"kind": "risk_module"})");
  EXPECT_FALSE(_rotation_file_is_platform_excluded(builtin_set(), unsupported));
  EXPECT_TRUE(_manifest_file_is_sync_excluded(builtin_set(), unsupported));
}

}  // namespace
}  // namespace brackenfen::sync
