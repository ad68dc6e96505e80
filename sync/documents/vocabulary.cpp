// Finding vocabularies, and checking each by itself.
#include "sync/documents/vocabulary.hpp"

#include <algorithm>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

std::optional<std::string> universe_from_safe_path(NeighbourSet& neighbours, std::string_view relative_path) {
  std::optional<std::string> universe = neighbours.artifact_rotation().vocabulary_named_universe_from_path(relative_path);
  if (!universe) return std::nullopt;
  return _validate_named_universe(*universe);
}

}  // namespace

std::string _validate_named_universe(const Value& named_universe) {
  const std::string text = named_universe.is_null() ? std::string() : to_text(named_universe);
  const std::string_view name = strip(text);
  if (name.empty()) throw SyncError("named_universe is required");
  if (name == "." || name == ".." || name.find_first_of(std::string_view("/\\\0", 3)) != std::string_view::npos) {
    throw SyncError("named_universe must be a single safe path segment: " + to_quoted(named_universe));
  }
  return std::string(name);
}

std::optional<std::string> vocabulary_universe_of(NeighbourSet& neighbours, const Text& file_path) {
  // Asked for every file of a manifest, of which nearly all need no copy.
  if (is_plain_relative_path(file_path)) return universe_from_safe_path(neighbours, file_path);
  return _vocabulary_named_universe_from_path(neighbours, Value(file_path));
}

std::optional<std::string> _vocabulary_named_universe_from_path(NeighbourSet& neighbours, const Value& file_path) {
  std::string relative_path;
  try {
    relative_path = _safe_manifest_relative_path(file_path);
  } catch (const ManifestError&) {
    return std::nullopt;
  }
  return universe_from_safe_path(neighbours, relative_path);
}

std::vector<std::string> _vocabulary_manifest_paths(NeighbourSet& neighbours, const Manifest& manifest) {
  std::vector<std::string> paths;
  const Value files = manifest.files();
  if (const Document* entries = files.if_document()) {
    for (const Member& member : *entries) {
      if (vocabulary_universe_of(neighbours, member.key)) paths.push_back(member.key.str());
    }
  }
  std::ranges::sort(paths);
  return paths;
}

Document _validate_vocabulary_data(NeighbourSet& neighbours, const Value& vocabulary, const Value& expected_era_number,
                                   const Value& named_universe) {
  const Document* document = vocabulary.if_document();
  if (document == nullptr) throw SyncError("vocabulary.json must contain a JSON object");

  std::vector<Value> missing;
  if (!document->contains("era_number")) missing.emplace_back("era_number");
  for (const std::string_view key : REQUIRED_VOCABULARY_KEYS) {
    if (!document->contains(key)) missing.emplace_back(key);
  }
  std::ranges::sort(missing, {}, [](const Value& key) { return *key.if_text(); });
  if (!missing.empty()) throw SyncError("vocabulary.json missing required keys: " + to_text(List(std::move(missing))));

  if (const Value& era = document->get("era_number"); era != expected_era_number) {
    throw EraError("vocabulary.json era_number=" + to_text(era) + " does not match manifest era_number=" + to_text(expected_era_number));
  }
  const Document* metadata = document->get("metadata").if_document();
  if (metadata == nullptr) throw SyncError("vocabulary.json metadata must be an object");

  const Value& own_name = document->get("named_universe");
  const std::string expected_universe = _validate_named_universe(named_universe.is_null() ? own_name : named_universe);
  if (own_name.if_text() != expected_universe) {
    throw SyncError("vocabulary.json named_universe does not match manifest path " + to_quoted(expected_universe));
  }
  if (metadata->get("named_universe").if_text() != expected_universe) {
    throw SyncError("vocabulary.json metadata.named_universe does not match manifest path " + to_quoted(expected_universe));
  }
  _validate_no_retired_function_tokens(neighbours, *document);
  return *document;
}

Document _validate_vocabulary_bytes(NeighbourSet& neighbours, std::string_view data, const Value& expected_era_number,
                                    const Value& named_universe) {
  Value vocabulary;
  try {
    vocabulary = parse_json(data);
  } catch (const Error& error) {
    throw SyncError("vocabulary.json is not valid JSON: " + error.text());
  }
  return _validate_vocabulary_data(neighbours, vocabulary, expected_era_number, named_universe);
}

Document _validate_vocabulary_file(NeighbourSet& neighbours, const std::string& path, const Value& expected_era_number,
                                   const Value& named_universe) {
  if (!path_exists(path)) throw SyncError("vocabulary.json is missing");
  std::string data;
  try {
    data = read_file(path);
  } catch (const Error& error) {
    throw SyncError("vocabulary.json is not readable: " + error.text());
  }
  return _validate_vocabulary_bytes(neighbours, data, expected_era_number, named_universe);
}

Document _first_vocabulary_metadata(const Value& vocabularies) {
  const Document* universes = vocabularies.if_document();
  if (universes == nullptr) return {};
  for (const Member& member : *universes) {
    const Document* vocabulary = member.value.if_document();
    if (vocabulary == nullptr) continue;
    const Value* metadata = vocabulary->find("metadata");
    if (metadata == nullptr) return {};
    if (const Document* document = metadata->if_document()) return *document;
  }
  return {};
}

}  // namespace brackenfen::sync
