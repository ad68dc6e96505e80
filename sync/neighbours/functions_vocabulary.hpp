// Merging the era's catalogue of functions into the vocabulary of a universe.
#pragma once

#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The keys of a vocabulary and of the catalogue under which tokens stand, in any shape.
inline constexpr std::string_view TOKEN_SECTIONS[] = {"rotations", "filtrations", "reductions", "aggregations", "functions"};

class FunctionsVocabulary {
 public:
  virtual ~FunctionsVocabulary() = default;
  /// The vocabulary that consumers of the universe get. Both documents are valid for the era. Built in: the
  /// vocabulary, with each token section that it lacks taken whole from the catalogue.
  [[nodiscard]] virtual Value merge_functions_vocabulary(const Document& functions, const Document& vocabulary,
                                                         std::string_view named_universe, const Value& expected_era_number) const = 0;

  static const FunctionsVocabulary& builtin();
};

}  // namespace brackenfen::sync
