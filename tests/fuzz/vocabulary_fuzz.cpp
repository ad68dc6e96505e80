// A vocabulary and the catalogue of functions become one merged map of the era that the manifest states, or are refused.
// Input: the catalogue, and the vocabulary on the lines after it.
#include "sync/documents/vocabulary.hpp"

#include "sync/base/files/sha256.hpp"
#include "sync/base/values/json.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace {

constexpr const char* PATH = "named_universes/us/vocabulary.json";

std::string text_of(const Value& value) { return write_json(value, JsonForm::Canonical); }

Manifest manifest_of(const Document& functions) {
  const Document files{{FUNCTIONS_RELATIVE_PATH, functions}, {PATH, Document{{"kind", "vocabulary"}}}};
  return Manifest(neighbours(), Document{{"era_number", 7}, {"functions", FUNCTIONS_RELATIVE_PATH}, {"files", files}});
}

void check_merged(std::string_view functions, std::string_view body) {
  const Document entry{{"kind", "functions"}, {"size_bytes", functions.size()}, {"sha256", _sha256(functions)}};
  const Manifest manifest = manifest_of(entry);
  const std::string& data_dir = directory().path();
  const auto validate = [&] { return _validate_manifest_vocabulary_files(neighbours(), data_dir, manifest); };
  const auto validate_staged = [&] { return validate_staged_vocabulary_files(neighbours(), data_dir, "/nowhere", manifest); };
  const auto merged = unless_refused(validate, error_class::SyncError);
  const auto staged = unless_refused(validate_staged, error_class::SyncError);
  require(merged.has_value() == staged.has_value(), "staged documents are judged as those that lie there");
  for (const Member& other : {Member{"kind", "x"}, Member{"size_bytes", functions.size() + 1}, Member{"sha256", "x"}}) {
    const Manifest another = manifest_of(entry.with(other.key, other.value));
    const auto refuse = [&] { return _validate_functions_file(neighbours(), data_dir, another); };
    require(!unless_refused(refuse, error_class::SyncError), "a catalogue is the one that the manifest states");
  }
  if (!merged) return;
  const Document& vocabulary = *merged->get("us").if_document();
  const Document own = _validate_vocabulary_bytes(neighbours(), body, 7, "us");
  for (const Member& member : own) require(text_of(vocabulary.get(member.key)) == text_of(member.value), "a vocabulary keeps what it says");
  const Value catalogue = parse_json(functions);
  for (const std::string_view section : TOKEN_SECTIONS)
    require(vocabulary.contains(section) == (own.contains(section) || catalogue.if_document()->contains(section)),
            "the catalogue fills in");
  require(_first_vocabulary_metadata(*merged).get("named_universe") == Value("us"), "metadata are those of the universe");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string_view functions = input.line();
  const std::string_view body = input.rest();
  directory().write(FUNCTIONS_RELATIVE_PATH, functions);
  directory().write(PATH, body);
  check_merged(functions, body);

  for (const std::string_view path : {body, functions}) {
    const auto found = unless_refused([&] { return _vocabulary_named_universe_from_path(neighbours(), path); }, error_class::SyncError);
    const auto same = unless_refused([&] { return vocabulary_universe_of(neighbours(), path); }, error_class::SyncError);
    require(found == same, "both look-ups find the same universe");
  }
  const auto vocabulary = unless_refused([&] { return parse_json(body); }, error_class::ValueError);
  if (!vocabulary) return 0;
  VocabularyEntryNames names = _iter_vocabulary_entry_names(*vocabulary);
  for (std::size_t count = 0; names.next(); ++count) require(count <= body.size(), "the walk ends");
  const auto validate = [&] { return _validate_vocabulary_data(neighbours(), *vocabulary, 7, Value()); };
  static_cast<void>(unless_refused(validate, error_class::SyncError));
  static_cast<void>(_first_vocabulary_metadata(*vocabulary));
  const auto universe = unless_refused([&] { return _validate_named_universe(*vocabulary); }, error_class::SyncError);
  require(!universe || (universe->find('/') == std::string::npos && *universe != ".."), "a universe is one segment");
  return 0;
}
