#include "sync/neighbours/neighbours.hpp"

#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "tests/documents/values.hpp"

namespace brackenfen::sync {
namespace {

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

TEST(Neighbours, readEntriesOfAnyShape) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {R"({"kind": "feature", "size_bytes": 12})", "feature", "12"},
      {R"({"kind": 7, "size_bytes": 99999999999999999999})", "7", "99999999999999999999"},
      {R"({"kind": null, "size_bytes": -99999999999999999999})", "", "absent"},
      {R"({"size_bytes": -1})", "", "absent"},
      {R"({"size_bytes": "12"})", "", "absent"},
      {R"({"size_bytes": 12.0})", "", "absent"},
      {R"(null)", "", "absent"},
  };
  for (const auto& [entry, kind, size] : rows) {
    EXPECT_EQ(ArtifactRotation::builtin().manifest_file_kind(parse_json(entry)), kind);
    const std::optional<Value> known = SyncProgress::builtin().manifest_file_size(parse_json(entry));
    EXPECT_EQ(known ? json_of(*known) : "absent", size) << entry;
  }
}

}  // namespace
}  // namespace brackenfen::sync
