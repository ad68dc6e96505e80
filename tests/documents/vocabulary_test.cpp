#include "sync/documents/vocabulary.hpp"

#include "sync/base/files/sha256.hpp"
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

TEST_F(Vocabulary, universeIsOneSafeSegmentOfItsPath) {
  const std::string unsafe = "SyncError: named_universe must be a single safe path segment: ";
  const std::pair<Value, std::string> universes[] = {
      {" us ", "us"},
      {nullptr, "SyncError: named_universe is required"},
      {" ..", unsafe + "' ..'"},
      {"a/b", unsafe + "'a/b'"},
      {"a\0b"s, unsafe + "'a\\x00b'"},
  };
  for (const auto& [universe, outcome] : universes) {
    std::string name;
    const std::string failure = failure_of([&, &value = universe] { return name = _validate_named_universe(value); });
    EXPECT_EQ(failure + name, outcome);
  }
  const std::pair<Value, const char*> paths[] = {
      {" named_universes\\us//vocabulary.json", "us"}, {"named_universes/a/b/vocabulary.json", ""}, {7, ""}};
  for (const auto& [path, universe] : paths) EXPECT_EQ(_vocabulary_named_universe_from_path(neighbours, path).value_or(""), universe);
  EXPECT_EQ(failure_of([&] { return _vocabulary_named_universe_from_path(neighbours, "named_universes/ /vocabulary.json"); }).substr(0, 11),
            "SyncError: ");
}

TEST_F(Vocabulary, theCatalogueMustBeTheOneThatTheManifestStates) {
  const std::string body = R"({"era_number": 12, "functions": {"fn": 1}})";
  const auto entry = [](std::string_view content) {
    return Document{{"kind", "functions"}, {"size_bytes", content.size()}, {"sha256", " " + _sha256(content) + " "}};
  };
  const Document stated = entry(body);
  const auto manifest_with = [&](const Value& file, const Value& pointer) {
    return Manifest(*Neighbours::builtin().bind(),
                    Document{{"era_number", " 12"}, {"functions", pointer}, {"files", Document{{"functions.json", file}}}});
  };
  const auto failure = [&](const std::string& content, const Value& file, const Value& pointer = "functions.json") {
    directory.write("functions.json", content);
    return failure_of([&] { return _validate_functions_file(neighbours, directory.path(), manifest_with(file, pointer)); });
  };
  EXPECT_EQ(failure(body, stated), "");
  EXPECT_EQ(failure(body, stated.without("size_bytes")), "");
  for (const Value& pointer : {Value(), Value("./functions.json")})
    EXPECT_EQ(failure(body, stated, pointer), "SyncError: manifest is missing functions.json pointer");
  EXPECT_EQ(failure(body, 5), "SyncError: manifest files[\"functions.json\"] must be an object");
  EXPECT_EQ(failure(body, stated.with("kind", "data")), "SyncError: manifest files[\"functions.json\"].kind must be functions");
  EXPECT_EQ(failure(body + " ", stated.without("sha256")), "IntegrityError: functions.json size_bytes mismatch");
  EXPECT_EQ(failure(body, stated.with("sha256", " ")), "SyncError: manifest files[\"functions.json\"].sha256 is required");
  EXPECT_EQ(failure(body, stated.with("sha256", _sha256(""))), "IntegrityError: functions.json sha256 mismatch");
  const std::pair<std::string, std::string> contents[] = {
      {"{", "SyncError: functions.json is not valid JSON: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)"},
      {"\xff", "SyncError: functions.json is not valid JSON: 'utf-8' codec can't decode byte 0xff in position 0: invalid start byte"},
      {"[]", "SyncError: functions.json must contain a JSON object"},
      {"{}", "EraError: functions.json era_number=None does not match manifest era_number=12"},
      {R"({"era_number": "12"})", "EraError: functions.json era_number=12 does not match manifest era_number=12"},
  };
  for (const auto& [content, expected] : contents) EXPECT_EQ(failure(content, entry(content)), expected);
  const TemporaryDirectory empty;
  const Manifest manifest = manifest_with(stated, "functions.json");
  EXPECT_EQ(failure_of([&] { return _validate_functions_file(neighbours, empty.path(), manifest); }),
            "SyncError: functions.json is missing: functions.json");
  EXPECT_EQ(failure_of([&] { return _validate_vocabulary_file(neighbours, empty / "x.json", 12); }),
            "SyncError: vocabulary.json is missing");
  EXPECT_EQ(failure_of([&] { return _validate_manifest_vocabulary_files(neighbours, empty.path(), manifest); }),
            "SyncError: manifest is missing per-universe vocabulary.json entries");
}

TEST_F(Vocabulary, ofEachUniverseIsMergedWithTheCatalogue) {
  const std::string functions = R"({"era_number": 12, "rotations": ["shared"], "functions": ["shared"], "note": 1})";
  const auto vocabulary = [](const std::string& universe, const std::string& more) {
    return R"({"era_number": 12, "named_universe": ")" + universe + R"(", "features": {}, "metadata": {"named_universe": ")" + universe +
           R"("})" + more + "}";
  };
  directory.write("functions.json", functions);
  directory.write("named_universes/us/vocabulary.json", vocabulary("us", R"(, "functions": ["own"])"));
  directory.write("named_universes/eu/vocabulary.json", vocabulary("eu", ""));
  const Document files{{"named_universes/us/vocabulary.json", Document()},
                       {"named_universes//eu/vocabulary.json", Document()},
                       {"functions.json", Document{{"kind", "functions"}, {"sha256", _sha256(functions)}}}};
  const Manifest manifest(*Neighbours::builtin().bind(), Document{{"era_number", 12}, {"functions", "functions.json"}, {"files", files}});
  EXPECT_EQ(json_of(_validate_manifest_vocabulary_files(neighbours, directory.path(), manifest)),
            R"({"eu": )" + vocabulary("eu", R"(, "rotations": ["shared"], "functions": ["shared"])") + R"(, "us": )" +
                vocabulary("us", R"(, "functions": ["own"], "rotations": ["shared"])") + "}");
  const std::pair<const char*, const char*> metadata[] = {
      {R"({"a": 1, "b": {"metadata": null}, "c": {"metadata": {"d": 1}}, "e": {"metadata": {}}})", R"({"d": 1})"},
      {R"({"a": {}, "c": {"metadata": {"d": 1}}})", "{}"},
      {"{}", "{}"},
  };
  for (const auto& [vocabularies, first] : metadata) EXPECT_EQ(json_of(_first_vocabulary_metadata(document(vocabularies))), first);
}

}  // namespace
}  // namespace brackenfen::sync
