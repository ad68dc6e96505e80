#include "sync/documents/feature_paths.hpp"

#include <algorithm>
#include <ctime>
#include <random>

#include "tests/documents/values.hpp"
#include "tests/support/host_interrupt.hpp"

namespace brackenfen::sync {
namespace {

const EraConfig& era_config() { return EraConfig::builtin(); }

TEST(FeaturePaths, findAFeatureByName) {
  const char* scoped_and_not =
      R"({"features/us/signal_is/f.arrow": {}, "features/signal_is/f.arrow": {}, "features/us/strategy_is/f.arrow": {}})";
  const char* deep = R"({"features/signal_is/deep/er/f.arrow": {}, "features/eu/x/signal_is/f.arrow": {}})";
  const std::tuple<const char*, const char*, const char*, const char*, Value, std::optional<std::string>> rows[] = {
      {"ownUniverse", scoped_and_not, " f ", "SIGNAL", " us ", "features/us/signal_is/f.arrow"},
      {"otherUniverseIsNoFallBack", scoped_and_not, "f", "SIGNAL", "eu", std::nullopt},
      {"otherEpochIsNoOtherUniverse", R"({"features/us/strategy_is/f.arrow": {}, "features/signal_is/f.arrow": {}})", "f", "SIGNAL", "eu",
       "features/signal_is/f.arrow"},
      {"unscopedBeforeScoped", scoped_and_not, "f", "SIGNAL", nullptr, "features/signal_is/f.arrow"},
      {"strategyEpoch", scoped_and_not, "f", "a STRATEGY", nullptr, "features/us/strategy_is/f.arrow"},
      {"firstOfTheManifestWins", deep, "f", "SIGNAL", "  ", "features/signal_is/deep/er/f.arrow"},
      {"deepScopeCountsAsAnotherUniverse", deep, "f", "SIGNAL", "us", std::nullopt},
      {"entryMustBeADocument", R"({"features/us/signal_is/f.arrow": 1, "features/signal_is/f.arrow": null})", "f", "SIGNAL", "eu",
       std::nullopt},
      {"wholeFileName", R"({"features/signal_is/xf.arrow": {}})", "f", "SIGNAL", nullptr, std::nullopt},
      {"blankName", scoped_and_not, " ", "SIGNAL", nullptr, std::nullopt},
  };
  for (const auto& [name, files, feature, expression_type, universe, path] : rows) {
    EXPECT_EQ(_manifest_feature_relative_path(era_config(), parse_json(files), feature, expression_type, universe), path) << name;
  }
}

TEST(FeaturePaths, familyIsTheFirstTwoOfFourFields) {
  const std::pair<Value, std::optional<std::string>> rows[] = {
      {"a__b__c__d", "a__b__"},  {" a__b__c__d__e.arrow ", "a__b__"}, {"a__b____", "a__b__"},      {"a___b__c__d", "a___b__"},
      {"a__b__c", std::nullopt}, {"__b__c__d", std::nullopt},         {"a____c__d", std::nullopt}, {" ", std::nullopt},
      {5, std::nullopt},
  };
  for (const auto& [name, prefix] : rows) EXPECT_EQ(_feature_artifact_family_prefix(name), prefix) << json_of(name);
}

TEST(FeaturePaths, companionsShareFamilyAndFolder) {
  const Value files = document(
      R"({"features/us/signal_is/a__b__z__1.arrow": {}, "features/us/signal_is/a__b__x__1.arrow": {}, "features/us/signal_is/a__b__y__1.txt": {},
          "features/us//signal_is/a__b__c.arrow": {}, "features/us/signal_is/a__c__x__1.arrow": {}, "features/us/signal_is/sub/a__b__s.arrow": {},
          "features/eu/signal_is/a__b__x__1.arrow": {}, "features/us/signal_is/a__b__v__1.arrow": 1, "../features/us/signal_is/a__b__u.arrow": {},
          "features/signal_is/a__b__x__1.arrow": {}, "features/signal_is/a__b__z__1.arrow": {}})");
  const std::vector<std::string> family = {"features/us/signal_is/a__b__c.arrow", "features/us/signal_is/a__b__z__1.arrow",
                                           "features/us/signal_is/sub/a__b__s.arrow"};
  EXPECT_EQ(_manifest_feature_companion_relative_paths(files, " features/us/./signal_is/a__b__x__1.arrow"), family);
  for (const char* path : {"features/signal_is/a__b__x__1.arrow", "other/us/signal_is/a__b__x__1.arrow",
                           "features/us/signal_is/a__b__x.arrow", "features/us/signal_is/a__b__x__1", "../x", ""}) {
    EXPECT_TRUE(_manifest_feature_companion_relative_paths(files, path).empty()) << path;
  }
  EXPECT_TRUE(_manifest_feature_companion_relative_paths(List{}, "features/us/signal_is/a__b__x__1.arrow").empty());

  std::vector<std::string> prefetch = {"features/us/signal_is/a__b__x__1.arrow"};
  prefetch.insert(prefetch.end(), family.begin(), family.end());
  EXPECT_EQ(_manifest_feature_prefetch_relative_paths(era_config(), files, "a__b__x__1", "SIGNAL", "us"), prefetch);
  EXPECT_TRUE(_manifest_feature_prefetch_relative_paths(era_config(), files, "gone", "SIGNAL", "us").empty());
}

TEST(FeaturePaths, manyNamesGiveWhatOneAfterTheOtherGives) {
  std::vector<Member> entries;
  std::vector<std::string> names;
  std::mt19937 draw(5);
  for (int number = 0; number < 3000; ++number) {
    static const char* const folders[] = {"features/us/signal_is/", "features/us//signal_is/", "features/us/signal_is/sub/",
                                          "features/signal_is/"};
    const std::string family = "a" + std::to_string(draw() % 40) + "__b__";
    const std::string name = family + std::to_string(draw() % 50) + (draw() % 2 == 0 ? "__c" : "");
    entries.push_back({folders[draw() % 4] + name + ".arrow", Document()});
    if (number % 20 == 0) names.push_back(draw() % 9 == 0 ? "sub/" + name : name);
  }
  const Value files = Document(std::move(entries));
  for (const Value& universe : {Value(), Value("us"), Value("eu")}) {
    std::vector<std::string> expected;
    for (const std::string& name : names) {
      for (std::string& path : _manifest_feature_prefetch_relative_paths(era_config(), files, Value(name), "SIGNAL", universe)) {
        if (std::ranges::find(expected, path) == expected.end()) expected.push_back(std::move(path));
      }
    }
    EXPECT_EQ(feature_prefetch_relative_paths(era_config(), files, names, "SIGNAL", universe), expected) << json_of(universe);
  }
}

TEST(FeaturePaths, aThousandNamesOfALargeFamilyAreAnsweredAtOnceOrInterrupted) {
  std::vector<Member> entries;
  std::vector<std::string> names;
  for (int number = 0; number < 100'000; ++number) {
    std::string name = "a__b__c__" + std::to_string(number);
    entries.push_back({"features/us/signal_is/" + name + ".arrow", Document()});
    if (number % 100 == 0) names.push_back(std::move(name));
  }
  const Value files = Document(std::move(entries));
  const auto processor_time = [&](const std::vector<std::string>& asked) {
    const std::clock_t began = std::clock();
    EXPECT_EQ(feature_prefetch_relative_paths(era_config(), files, asked).size(), 100'000U);
    return std::clock() - began;
  };
  EXPECT_LT(processor_time(names), 10 * processor_time({names.begin(), names.begin() + 10})) << "the manifest is gone through once";

  const HostInterrupt exit([] { throw Interrupted{}; });
  EXPECT_THROW(static_cast<void>(feature_prefetch_relative_paths(era_config(), files, names)), Interrupted);
}

TEST(FeaturePaths, groupSignalsByTheirCurrentEpoch) {
  const std::tuple<Value, const char*, std::optional<std::string>> rows[] = {
      {"useful_signals/p/e/signal_os/x", "useful_signals/", "useful_signals/p/e"},
      {"useful_signals/p/e/strategy_is/x", "useful_signals/", std::nullopt},
      {"found_signals/p/e/signal_is/x/y", "found_signals/", "found_signals/p/e"},
      {"found_strategies//e/strategy_is/", "found_strategies/", "found_strategies//e"},
      {"found_signals/p/e/signal_is", "found_signals/", std::nullopt},
      {"found_signals2/p/e/signal_is/x", "found_signals", std::nullopt},
      {"features/p/e/signal_is/x", "features/", std::nullopt},
      {5, "found_signals/", std::nullopt},
  };
  for (const auto& [path, prefix, key] : rows) EXPECT_EQ(_agent_signal_group_key(era_config(), path, prefix), key) << json_of(path);
}

}  // namespace
}  // namespace brackenfen::sync
