// The vocabularies of a manifest, all together: the catalogue they share, and each merged with it.
#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/vocabulary.hpp"

namespace brackenfen::sync {
namespace {

/// What is wrong with the catalogue, or with what the manifest says of it.
Error functions_error(const ErrorClass& error_class, std::string text) {
  return {error_class, std::move(text), Document{{"file_path", FUNCTIONS_RELATIVE_PATH}}};
}
Error functions_error(std::string text) { return functions_error(error_class::SyncError, std::move(text)); }

/// The manifest's entry for the catalogue.
Document functions_entry(const Manifest& manifest) {
  if (text_or_empty(manifest.functions()) != FUNCTIONS_RELATIVE_PATH) throw functions_error("manifest is missing functions.json pointer");
  const Value entry = manifest.file(FUNCTIONS_RELATIVE_PATH);
  if (!entry.is_document()) throw functions_error(R"(manifest files["functions.json"] must be an object)");
  if (entry.if_document()->get("kind").if_text() != "functions") {
    throw functions_error(R"(manifest files["functions.json"].kind must be functions)");
  }
  return *entry.if_document();
}

std::string read_functions(const std::string& data_dir) {
  const std::string path = _manifest_local_path(data_dir, FUNCTIONS_RELATIVE_PATH);
  if (!path_exists(path)) throw functions_error("functions.json is missing: " + std::string(FUNCTIONS_RELATIVE_PATH));
  try {
    return read_file(path);
  } catch (const Error& error) {
    throw functions_error("functions.json is not readable: " + error.text());
  }
}

void require_published_bytes(const Document& entry, std::string_view bytes) {
  if (const Value& size = entry.get("size_bytes");
      !size.is_null() && manifest_integer(size, "size_bytes of functions.json") != Value(bytes.size())) {
    throw functions_error(error_class::IntegrityError, "functions.json size_bytes mismatch");
  }
  const std::string stated = text_or_empty(entry.get("sha256"));
  const std::string expected_sha = ascii_lower(strip(stated));
  if (expected_sha.empty()) throw functions_error(R"(manifest files["functions.json"].sha256 is required)");
  if (_sha256(bytes) != expected_sha) throw functions_error(error_class::IntegrityError, "functions.json sha256 mismatch");
}

}  // namespace

Document _validate_functions_file(NeighbourSet& neighbours, const std::string& data_dir, const Manifest& manifest) {
  const Document entry = functions_entry(manifest);
  const std::string bytes = read_functions(data_dir);
  require_published_bytes(entry, bytes);
  Value parsed;
  try {
    parsed = parse_json(bytes);
  } catch (const Error& error) {
    throw functions_error("functions.json is not valid JSON: " + error.text());
  }
  const Document* functions = parsed.if_document();
  if (functions == nullptr) throw functions_error("functions.json must contain a JSON object");
  const Value manifest_era = manifest_integer(manifest.era_number(), "era_number");
  if (const Value& era = functions->get("era_number"); era != manifest_era) {
    throw functions_error(error_class::EraError,
                          "functions.json era_number=" + to_text(era) + " does not match manifest era_number=" + to_text(manifest_era));
  }
  _validate_no_retired_function_tokens(neighbours, *functions);
  return *functions;
}

namespace {

Document merged_vocabularies(NeighbourSet& neighbours, const std::string& data_dir, const std::string& functions_dir,
                             const Manifest& manifest) {
  const FunctionsVocabulary& merger = neighbours.functions_vocabulary();
  const std::vector<std::string> paths = _vocabulary_manifest_paths(neighbours, manifest);
  if (paths.empty()) throw SyncError("manifest is missing per-universe vocabulary.json entries");
  const Document functions = _validate_functions_file(neighbours, functions_dir, manifest);
  const Value era = manifest_integer(manifest.era_number(), "era_number");
  std::vector<Member> vocabularies;
  for (const std::string& path : paths) {
    const std::string universe = _vocabulary_named_universe_from_path(neighbours, path).value_or("");
    const Document vocabulary = _validate_vocabulary_file(neighbours, _manifest_local_path(data_dir, path), era, universe);
    vocabularies.push_back({universe, merger.merge_functions_vocabulary(functions, vocabulary, universe, era)});
  }
  return Document(std::move(vocabularies));
}

}  // namespace

Document _validate_manifest_vocabulary_files(NeighbourSet& neighbours, const std::string& data_dir, const Manifest& manifest) {
  return merged_vocabularies(neighbours, data_dir, data_dir, manifest);
}

Document validate_staged_vocabulary_files(NeighbourSet& neighbours, const std::string& staging_dir, const std::string& live_dir,
                                          const Manifest& manifest) {
  const bool is_staged = path_exists(_manifest_local_path(staging_dir, FUNCTIONS_RELATIVE_PATH));
  return merged_vocabularies(neighbours, staging_dir, is_staged ? staging_dir : live_dir, manifest);
}

}  // namespace brackenfen::sync
