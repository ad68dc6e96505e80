#include "sync/documents/feature_paths.hpp"

#include <ctime>

#include "tests/documents/values.hpp"
#include "tests/support/host_interrupt.hpp"

namespace brackenfen::sync {
namespace {

const EraConfig& era_config() { return EraConfig::builtin(); }

TEST(FeaturePaths, aThousandNamesOfALargeFamilyAreAnsweredAtOnceOrInterrupted) {
  std::vector<Member> entries;
  std::vector<std::string> names;
  for (int number = 0; number < 100'000; ++number) {
    std::string name = "a__b__c__" + std::to_string(number);
    entries.push_back({"features/us/signal_is/" + name + ".arrow", Document()});
    if (number % 100 == 0) names.push_back(std::move(name));
  }
  std::string folders;
  for (int folder = 0; folder < 1'000'000; ++folder) folders += "x/";
  entries.push_back({"features/us/signal_is/" + folders + "a__b__c__d.arrow", Document()});
  const Value files = Document(std::move(entries));
  const auto processor_time = [&](const std::vector<std::string>& asked) {
    const std::clock_t began = std::clock();
    EXPECT_EQ(feature_prefetch_relative_paths(era_config(), files, asked).size(), 100'001U);
    return std::clock() - began;
  };
  EXPECT_LT(processor_time(names), 10 * processor_time({names.begin(), names.begin() + 10})) << "the manifest is gone through once";

  const HostInterrupt exit([] { throw Interrupted{}; });
  EXPECT_THROW(static_cast<void>(feature_prefetch_relative_paths(era_config(), files, names)), Interrupted);
}

}  // namespace
}  // namespace brackenfen::sync
