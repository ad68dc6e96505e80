#include "sync/neighbours/functions_vocabulary.hpp"

namespace brackenfen::sync {
namespace {

class BuiltinFunctionsVocabulary final : public FunctionsVocabulary {
 public:
  Value merge_functions_vocabulary(const Document& functions, const Document& vocabulary, std::string_view, const Value&) const override {
    Document merged = vocabulary;
    for (const std::string_view section : TOKEN_SECTIONS) {
      const Value* tokens = functions.find(section);
      if (tokens != nullptr && !merged.contains(section)) merged = merged.with(section, *tokens);
    }
    return merged;
  }
};

}  // namespace

const FunctionsVocabulary& FunctionsVocabulary::builtin() {
  static const FunctionsVocabulary& merger = *new BuiltinFunctionsVocabulary;
  return merger;
}

}  // namespace brackenfen::sync
