#include "sync/documents/manifest.hpp"

#include "sync/base/descriptor.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/rotation/planning.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

Manifest manifest(const Value& data) { return Manifest(*Neighbours::builtin().bind(), data); }

TEST(Platform, isNamedByTheFirstRowThatFits) {
  const char* rows[][3] = {
      {"Linux", "x86_64", "linux_x86_64"},   {"linux", "AMD64", "linux_x86_64"},   {"Linux", "aarch64", "linux_aarch64"},
      {"Linux", "ARM64", "linux_aarch64"},   {"Darwin", "x86_64", "macos_x86_64"}, {"Darwin", "arm64", "macos_arm64"},
      {"Windows", "ARM64", "windows_amd64"}, {"Darwin", "Power", "darwin_power"},  {"Linux", "RISCV64", "linux_riscv64"},
      {"FreeBSD", "amd64", "freebsd_amd64"},
  };
  for (const auto& [system, machine, platform] : rows) EXPECT_EQ(platform_name(system, machine), platform);
  EXPECT_EQ(current_platform(), _detect_platform());
}

TEST(Manifest, keepsFieldsAsTheyCame) {
  const Manifest empty = manifest(Document());
  EXPECT_EQ(json_of(List{empty.era_number(), empty.version(), empty.base_url(), empty.files(), empty.pnl_column_count(),
                         empty.signals_index(), empty.functions()}),
            "[0, 0, null, {}, 0, null, null]");

  const Document data = document(
      R"({"era_number": null, "version": "7", "base_url": 5, "files": ["a"], "pnl_column_count": 1.5, "signals_index": "s", "functions": "f",
          "found_signals": {"a": {"files": ["x"]}}, "other": [true]})");
  const Manifest odd = manifest(data);
  EXPECT_EQ(json_of(List{odd.era_number(), odd.version(), odd.base_url(), odd.files(), odd.pnl_column_count(), odd.signals_index(),
                         odd.functions()}),
            R"([null, "7", 5, ["a"], 1.5, "s", "f"])");
  EXPECT_TRUE(odd.data().same_as(data));
  EXPECT_TRUE(odd.sections().found_signals.empty());
  EXPECT_TRUE(odd.file("a").is_null());
  EXPECT_TRUE(manifest(odd.to_dict()).data() == data);
}

TEST(Manifest, setsAnEntryInFilesAndDocumentAtOnce) {
  Manifest record = manifest(document(R"({"version": 2, "files": {"a": {"kind": "x"}, "gone.pxd": {}}})"));
  const Document before = record.data();
  record.set_file("a", document(R"({"kind": "y"})"));
  record.set_file("b", document(R"({"size_bytes": 1})"));
  EXPECT_EQ(json_of(record.data()), R"({"version": 2, "files": {"a": {"kind": "y"}, "b": {"size_bytes": 1}}})");
  EXPECT_TRUE(record.files().same_as(record.data().get("files")));
  EXPECT_EQ(json_of(before), R"({"version": 2, "files": {"a": {"kind": "x"}}})");

  Manifest listed = manifest(document(R"({"files": []})"));
  error_text(error_class::TypeError, [&] { return listed.set_file("a", Document()), 0; });
}

TEST(Manifest, isWrittenInTheOrderItCame) {
  const TemporaryDirectory directory;
  _write_manifest_json(Files::real(), Clock::real(), directory.path(), document(R"({"z":1,"a":{"é":[1.0,null]}})"));
  EXPECT_EQ(read_file(directory / "manifest.json"), R"({"z": 1, "a": {"\u00e9": [1.0, null]}})");
}

TEST(RotationPlan, takesEveryFileThatIsNotExcluded) {
  const Manifest record = manifest(
      document(R"({"files": {"z": {"kind": "feature"}, "m": {"kind": "vault_module", "platform": "plan9_mips"}, "odd": 7, "a": {}}})"));
  const RotationPlan plan = plan_all_files(*Neighbours::builtin().bind(), record);
  EXPECT_EQ(plan.selection.active_relative_paths, (std::vector<Text>{"z", "odd", "a"}));
  EXPECT_EQ(plan.candidate_state, nullptr);
  EXPECT_TRUE(
      plan_all_files(*Neighbours::builtin().bind(), manifest(document(R"({"files": "a"})"))).selection.active_relative_paths.empty());
}

}  // namespace
}  // namespace brackenfen::sync
