// The names of tokens in vocabularies and in the catalogue, and the retired ones among them.
#include <algorithm>
#include <set>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/documents/vocabulary.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t RETIRED_NAMES_SHOWN = 5;

}  // namespace

VocabularyEntryNames::VocabularyEntryNames(const Value& value) { enter(value); }

void VocabularyEntryNames::enter(const Value& value) {
  if (value.is_list() || value.is_document()) levels_.push_back({value});
}

std::optional<std::string_view> VocabularyEntryNames::next() {
  while (!levels_.empty()) {
    Level& level = levels_.back();
    const std::size_t step = level.step++;
    if (const List* list = level.container.if_list()) {
      if (step < list->size()) {
        enter((*list)[step]);
      } else {
        levels_.pop_back();
      }
      continue;
    }
    // Step 0 is the `name` field, then come all values, then all keys.
    const Document& document = *level.container.if_document();
    if (step == 0) {
      if (const std::optional<std::string_view> name = document.get("name").if_text()) return name;
    } else if (step <= document.size()) {
      enter(document.begin()[step - 1].value);
    } else if (step <= 2 * document.size()) {
      return document.begin()[step - document.size() - 1].key.view();
    } else {
      levels_.pop_back();
    }
  }
  return std::nullopt;
}

VocabularyEntryNames _iter_vocabulary_entry_names(const Value& value) { return VocabularyEntryNames(value); }

std::vector<std::string> _retired_function_names_in_vocabulary(NeighbourSet& neighbours, const Document& vocabulary) {
  const FunctionTokenSafety& safety = neighbours.function_token_safety();
  std::set<std::string> retired;
  for (const std::string_view section : TOKEN_SECTIONS) {
    VocabularyEntryNames names = _iter_vocabulary_entry_names(vocabulary.get(section));
    while (const std::optional<std::string_view> name = names.next()) {
      if (safety.is_retired_public_function_token_name(*name)) retired.emplace(*name);
    }
  }
  return {retired.begin(), retired.end()};
}

void _validate_no_retired_function_tokens(NeighbourSet& neighbours, const Document& vocabulary) {
  std::vector<std::string> retired = _retired_function_names_in_vocabulary(neighbours, vocabulary);
  if (retired.empty()) return;
  std::string suffix;
  if (retired.size() > RETIRED_NAMES_SHOWN) {
    suffix = " (+" + std::to_string(retired.size() - RETIRED_NAMES_SHOWN) + " more)";
    retired.resize(RETIRED_NAMES_SHOWN);
  }
  throw SyncError("vocabulary.json contains retired function token ids " + join(retired, ", ") + suffix +
                  "; regenerate the era distribution with DB-token vocabulary");
}

}  // namespace brackenfen::sync
