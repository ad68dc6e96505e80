#include "sync/documents/vocabulary.hpp"

#include "sync/base/sha256.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::string_literals;

class Vocabulary : public testing::Test {
 protected:
  NeighbourSet& neighbours = *Neighbours::builtin().bind();
  TemporaryDirectory directory;
};

TEST_F(Vocabulary, universeIsOneSafeSegment) {
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

TEST_F(Vocabulary, isToldByItsPath) {
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

TEST_F(Vocabulary, namesAreFieldsAndKeysAtAnyDepth) {
  const Value value = document(R"({"name": "first", "b": [{"name": 5, "c": {"name": "deep"}}, "no name", ["nor this"]], "d": {"e": "f"}})");
  std::vector<Value> walked;
  VocabularyEntryNames names = _iter_vocabulary_entry_names(value);
  while (const auto name = names.next()) walked.emplace_back(*name);
  EXPECT_EQ(json_of(List(std::move(walked))), R"(["first", "deep", "name", "name", "c", "e", "name", "b", "d"])");
  EXPECT_EQ(_iter_vocabulary_entry_names("name").next(), std::nullopt);
}

TEST_F(Vocabulary, isCheckedStepByStep) {
  const Document good =
      document(R"({"era_number": 12, "named_universe": "us", "features": null, "metadata": {"named_universe": "us"}, "x": 1})");
  const auto changed = [&](const char* key, Value value) { return json_of(good.with(key, std::move(value))); };
  struct Row {
    std::string body, failure = "";
    Value universe = "us";
  };
  const Row rows[] = {
      {json_of(good)},
      {json_of(good), "", nullptr},
      {"[]", "SyncError: vocabulary.json must contain a JSON object"},
      {"{}", "SyncError: vocabulary.json missing required keys: ['era_number', 'features', 'metadata', 'named_universe']"},
      {json_of(good.without("era_number").without("features")),
       "SyncError: vocabulary.json missing required keys: ['era_number', 'features']"},
      {changed("era_number", "12"), "EraError: vocabulary.json era_number=12 does not match manifest era_number=12"},
      {changed("era_number", 13), "EraError: vocabulary.json era_number=13 does not match manifest era_number=12"},
      {changed("metadata", nullptr), "SyncError: vocabulary.json metadata must be an object"},
      {json_of(good.with("metadata", nullptr).with("era_number", 1)),
       "EraError: vocabulary.json era_number=1 does not match manifest era_number=12"},
      {json_of(good), "SyncError: vocabulary.json named_universe does not match manifest path 'eu'", "eu"},
      {changed("named_universe", " us "), "SyncError: vocabulary.json named_universe does not match manifest path 'us'", nullptr},
      {changed("named_universe", ""), "SyncError: named_universe is required", nullptr},
      {changed("metadata", Document()), "SyncError: vocabulary.json metadata.named_universe does not match manifest path 'us'"},
      {"{\"a\": \"\xff\"}",
       "SyncError: vocabulary.json is not valid JSON: 'utf-8' codec can't decode byte 0xff in position 7: invalid start byte"},
      {"\xef\xbb\xbf{}",
       "SyncError: vocabulary.json is not valid JSON: Unexpected UTF-8 BOM (decode using utf-8-sig): line 1 column 1 (char 0)"},
      {"{", "SyncError: vocabulary.json is not valid JSON: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.body);
    EXPECT_EQ(failure_of([&] { return _validate_vocabulary_bytes(neighbours, row.body, 12, row.universe); }), row.failure);
    const std::string path = directory.write("vocabulary.json", row.body);
    EXPECT_EQ(failure_of([&] { return _validate_vocabulary_file(neighbours, path, 12, row.universe); }), row.failure);
  }
  EXPECT_EQ(failure_of([&] { return _validate_vocabulary_file(neighbours, directory / "none", 12, "us"); }),
            "SyncError: vocabulary.json is missing");
  EXPECT_EQ(failure_of([&] { return _validate_vocabulary_file(neighbours, directory.path(), 12, "us"); }),
            "SyncError: vocabulary.json is not readable: [Errno 21] Is a directory: '" + directory.path() + "'");
}

TEST_F(Vocabulary, theCatalogueMustBeTheOneThatTheManifestStates) {
  const std::string body = R"({"era_number": 12, "functions": {"fn": 1}})";
  const auto entry = [](std::string_view content) {
    return Document{{"kind", "functions"}, {"size_bytes", content.size()}, {"sha256", " " + _sha256(content) + " "}};
  };
  struct Row {
    const char* name;
    std::string body, failure = "";
    Value entry;
    Value pointer = "functions.json";
  };
  const Document stated = entry(body);
  const Row rows[] = {
      {"right", body, "", stated},
      {"no size stated", body, "", stated.without("size_bytes")},
      {"no pointer", body, "SyncError: manifest is missing functions.json pointer", stated, nullptr},
      {"an unusual pointer", body, "SyncError: manifest is missing functions.json pointer", stated, "./functions.json"},
      {"not listed", body, "SyncError: manifest files[\"functions.json\"] must be an object", 5},
      {"another kind", body, "SyncError: manifest files[\"functions.json\"].kind must be functions", stated.with("kind", "data")},
      {"another size and no digest", body + " ", "IntegrityError: functions.json size_bytes mismatch", stated.without("sha256")},
      {"no digest", body, "SyncError: manifest files[\"functions.json\"].sha256 is required", stated.with("sha256", " ")},
      {"another digest", body, "IntegrityError: functions.json sha256 mismatch", stated.with("sha256", _sha256(""))},
      {"no JSON", "{",
       "SyncError: functions.json is not valid JSON: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)",
       entry("{")},
      {"a byte order mark", "\xef\xbb\xbf{}",
       "SyncError: functions.json is not valid JSON: Unexpected UTF-8 BOM (decode using utf-8-sig): line 1 column 1 (char 0)",
       entry("\xef\xbb\xbf{}")},
      {"no UTF-8", "\xff",
       "SyncError: functions.json is not valid JSON: 'utf-8' codec can't decode byte 0xff in position 0: invalid start byte",
       entry("\xff")},
      {"a list", "[]", "SyncError: functions.json must contain a JSON object", entry("[]")},
      {"no era", "{}", "EraError: functions.json era_number=None does not match manifest era_number=12", entry("{}")},
      {"a text for the era", R"({"era_number": "12"})", "EraError: functions.json era_number=12 does not match manifest era_number=12",
       entry(R"({"era_number": "12"})")},
  };
  const auto manifest_with = [&](const Value& file, const Value& pointer) {
    return Manifest(*Neighbours::builtin().bind(),
                    Document{{"era_number", " 12"}, {"functions", pointer}, {"files", Document{{"functions.json", file}}}});
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    directory.write("functions.json", row.body);
    const Manifest manifest = manifest_with(row.entry, row.pointer);
    EXPECT_EQ(failure_of([&] { return _validate_functions_file(neighbours, directory.path(), manifest); }), row.failure);
  }
  const TemporaryDirectory empty;
  const Manifest manifest = manifest_with(stated, "functions.json");
  EXPECT_EQ(failure_of([&] { return _validate_functions_file(neighbours, empty.path(), manifest); }),
            "SyncError: functions.json is missing: functions.json");
  EXPECT_EQ(failure_of([&] { return _validate_manifest_vocabulary_files(neighbours, empty.path(), manifest); }),
            "SyncError: manifest is missing per-universe vocabulary.json entries");
}

TEST_F(Vocabulary, ofEachUniverseIsMergedWithTheCatalogue) {
  const std::string functions = R"({"era_number": 12, "rotations": ["shared"], "functions": ["shared"], "note": 1})";
  const auto vocabulary = [](const std::string& universe, const std::string& more) {
    return R"({"era_number": 12, "named_universe": ")" + universe + R"(", "features": {}, "metadata": {"named_universe": ")" + universe +
           R"(", "n_instruments": 3})" + more + "}";
  };
  directory.write("functions.json", functions);
  directory.write("named_universes/us/vocabulary.json", vocabulary("us", R"(, "functions": ["own"])"));
  directory.write("named_universes/eu/vocabulary.json", vocabulary("eu", ""));
  const Document files{{"named_universes/us/vocabulary.json", Document()},
                       {"named_universes//eu/vocabulary.json", Document()},
                       {"functions.json", Document{{"kind", "functions"}, {"sha256", _sha256(functions)}}},
                       {"features/x", Document()}};
  const Manifest manifest(*Neighbours::builtin().bind(), Document{{"era_number", 12}, {"functions", "functions.json"}, {"files", files}});
  EXPECT_EQ(_vocabulary_manifest_paths(neighbours, manifest),
            (std::vector<std::string>{"named_universes//eu/vocabulary.json", "named_universes/us/vocabulary.json"}));
  const Document merged = _validate_manifest_vocabulary_files(neighbours, directory.path(), manifest);
  EXPECT_EQ(json_of(merged), R"({"eu": )" + vocabulary("eu", R"(, "rotations": ["shared"], "functions": ["shared"])") + R"(, "us": )" +
                                 vocabulary("us", R"(, "functions": ["own"], "rotations": ["shared"])") + "}");
  EXPECT_EQ(json_of(_first_vocabulary_metadata(merged)), R"({"named_universe": "eu", "n_instruments": 3})");
  EXPECT_EQ(json_of(_first_vocabulary_metadata(document(R"({"a": 1, "b": {"metadata": null}, "c": {"metadata": {"d": 1}}})"))),
            R"({"d": 1})");
  EXPECT_EQ(json_of(_first_vocabulary_metadata(document(R"({"a": {}, "c": {"metadata": {"d": 1}}})"))), "{}");
  EXPECT_EQ(json_of(_first_vocabulary_metadata(Document())), "{}");
}

}  // namespace
}  // namespace brackenfen::sync
