// A made-up data set for demos, tests and measurements: features in two epochs and several families, found and
// useful signals, found strategies, vocabularies, functions, index and seed, in one era or several. The same
// options give the same bytes on every machine. The artifacts hold noise; only the documents mean something.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace brackenfen::sync::distribution {

struct SampleOptions {
  std::string out;
  std::int64_t files = 300;  ///< files of the manifest in each era, documents included
  std::int64_t bytes = 200'000'000;
  std::uint64_t seed = 1;
  std::int64_t first_era = 1;
  std::int64_t eras = 1;
  std::vector<std::string> universes = {"liquid_500", "broad_2000"};
  bool source_only = false;  ///< folders of artifacts instead of distribution trees
};

struct SampleReport {
  std::vector<std::string> folders;  ///< one for each era
  std::int64_t files = 0;            ///< of the last era
  std::int64_t bytes = 0;            ///< of the last era
};

/// One era goes to OUT itself, several go to OUT/era-{n}. From era to era about one artifact in twenty is
/// replaced: a feature by new content, a signal or strategy by another one. Throws Error.
SampleReport make_sample(const SampleOptions& options);

}  // namespace brackenfen::sync::distribution
