#include "sync/rotation/state_file.hpp"

#include "sync/base/values/json.hpp"
#include "sync/neighbours/rotation_state.hpp"
#include "sync/rotation/status.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* GOOD_STATE =
    R"({"active_relative_paths":["features/a.arrow","gone"],"generation":3,"rng_state":"00ff","rotated_at":17,"schema_version":1,"seed":18446744073709551615})";

class RotationStateFileTest : public testing::Test, protected SyncSetup {
 protected:
  RotationStateRef load() { return load_feature_rotation_state(*neighbours(), directory.path()); }
  std::string state_path() { return feature_rotation_state_path(directory.path()); }
};

TEST_F(RotationStateFileTest, isReadAndWrittenInOneForm) {
  EXPECT_EQ(load(), nullptr);
  directory.write(FEATURE_ROTATION_STATE_FILENAME, GOOD_STATE);
  const RotationStateRef state = load();
  EXPECT_THAT(state->active_relative_paths(), ElementsAre("features/a.arrow", "gone"));
  EXPECT_EQ(state->seed(), Value::integer_from_decimal("18446744073709551615"));
  directory.write(FEATURE_ROTATION_STATE_FILENAME, "");
  EXPECT_EQ(write_feature_rotation_state(*neighbours(), files, clock, directory.path(), state), state_path());
  EXPECT_EQ(directory.read(FEATURE_ROTATION_STATE_FILENAME), GOOD_STATE);
  EXPECT_THAT(files.calls(FaultFiles::Call::Flush), ElementsAre(StartsWith(state_path() + "."), directory.path()));
  EXPECT_TRUE(equal_states(load(), state));
}

TEST_F(RotationStateFileTest, aDamagedOneFailsTheConstructionOfAManager) {
  struct Row {
    std::string content;
    const char* failure;
  };
  const auto with = [](const char* key, const Value& value) {
    return write_json(parse_json(GOOD_STATE).if_document()->with(key, value), JsonForm::Canonical);
  };
  const Row rows[] = {
      {"", "Expecting value: line 1 column 1 (char 0)"},
      {std::string(GOOD_STATE).substr(0, 60), "Unterminated string"},
      {"\xff", "'utf-8' codec can't decode byte 0xff"},
      {"[]", "it must be a JSON object, not list"},
      {"{}", "schema_version is missing"},
      {with("schema_version", 2), "schema_version 2 is not 1"},
      {with("schema_version", "1"), "schema_version must be an integer, not str"},
      {with("active_relative_paths", "x"), "active_relative_paths must be a list, not str"},
      {with("active_relative_paths", List{"a", 7}), "active_relative_paths[1] must be a text, not int"},
      {with("active_relative_paths", List{"a/../../b"}), "active_relative_paths[0] is no path inside the directory: 'a/../../b'"},
      {with("active_relative_paths", List{" /etc/x"}), "active_relative_paths[0] is no path"},
      {with("active_relative_paths", List{"./."}), "active_relative_paths[0] is no path"},
      {with("active_relative_paths", List{"a\\..\\b"}), "active_relative_paths[0] is no path"},
      {with("generation", Value()), "generation must be an integer, not NoneType"},
      {with("seed", 1.5), "seed must be an integer, not float"},
      {with("rng_state", 5), "rng_state must be a text, not int"},
      {with("rotated_at", "x"), "rotated_at must be an integer or null, not str"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.content);
    directory.write(FEATURE_ROTATION_STATE_FILENAME, row.content);
    EXPECT_THAT(failure_of([&] { return open(); }),
                StartsWith("FeatureRotationStateError: invalid feature rotation state at " + state_path() + ": " + row.failure));
  }
}

TEST_F(RotationStateFileTest, theNextRotationIsReckonedFromTheTimeOfTheFile) {
  const Value hourly(Document{{"rotation_frequency", "PT1H"}});
  const auto next = [&] { return _rotation_next_at(files, clock, directory.path(), hourly); };
  EXPECT_FALSE(next().has_value());
  directory.write(FEATURE_ROTATION_STATE_FILENAME, GOOD_STATE);
  files.set_mtime(state_path(), 1'700'000'000'500'000'000);
  EXPECT_EQ(next()->at, "2023-11-14T23:13:20Z");
  EXPECT_FALSE(next()->due);
  clock.advance(3599.9);
  EXPECT_FALSE(_rotation_is_due(files, clock, directory.path(), hourly, load()));
  clock.advance(0.2);
  EXPECT_TRUE(next()->due);
  EXPECT_TRUE(_rotation_is_due(files, clock, directory.path(), hourly, load()));
  EXPECT_FALSE(_rotation_is_due(files, clock, directory.path(), {}, load()));
  EXPECT_TRUE(_rotation_is_due(files, clock, directory.path(), {}, nullptr));
}

TEST_F(RotationStateFileTest, aStatusTellsWhatIsMissingAndRefusesAManifestThatIsNone) {
  const auto status = [&] {
    return write_json(feature_rotation_status_payload(*neighbours(), files, clock, directory.path()), JsonForm::InsertionOrder);
  };
  directory.write(FEATURE_ROTATION_STATE_FILENAME, GOOD_STATE);
  directory.write("manifest.json", write_json(manifest(4, {{"features/a.arrow", "a"}, {"gone", "b"}}), JsonForm::InsertionOrder));
  EXPECT_THAT(status(), StartsWith(R"({"state": "incomplete", "manifest_available": true, "era_number": 7, "manifest_version": 4, )"));
  directory.write("manifest.json", "[]");
  EXPECT_EQ(failure_of([&] { return status(); }),
            "FeatureRotationStateError: manifest.json for feature rotation status must contain a JSON object");
  directory.write("manifest.json", "{");
  EXPECT_THAT(failure_of([&] { return status(); }),
              StartsWith("FeatureRotationStateError: invalid manifest.json for feature rotation status: Expecting property name"));
}

}  // namespace
}  // namespace brackenfen::sync
