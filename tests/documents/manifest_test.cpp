#include "sync/documents/manifest.hpp"

#include "tests/documents/values.hpp"

namespace brackenfen::sync {
namespace {

NeighbourSet& builtin_set() {
  static NeighbourSet& set = *Neighbours::builtin().bind();
  return set;
}

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

}  // namespace
}  // namespace brackenfen::sync
