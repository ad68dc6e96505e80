// Per-universe vocabularies and the catalogue of functions they share.
//
// Each named universe of an era has its vocabulary.json, and the era has one functions.json. A consumer works
// with neither: it gets one merged vocabulary for each universe. Nothing here repairs anything; what is wrong
// is an error, and the files stay as they are.
//
// SyncError: missing, unreadable or malformed. EraError: of another era. IntegrityError: a catalogue whose
// size or digest is not the manifest's.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/values/value.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {

inline constexpr std::string_view FUNCTIONS_RELATIVE_PATH = "functions.json";
inline constexpr std::string_view REQUIRED_VOCABULARY_KEYS[] = {"named_universe", "features", "metadata"};

// ---- where vocabularies lie ------------------------------------------------------------------------------

/// The name stripped. Throws SyncError where it is empty or no single safe path segment.
[[nodiscard]] std::string _validate_named_universe(const Value& named_universe);

/// The universe of a vocabulary path; absent for any other path. Throws SyncError where the path has the
/// shape of a vocabulary with an unsafe universe.
[[nodiscard]] std::optional<std::string> _vocabulary_named_universe_from_path(NeighbourSet& neighbours, const Value& file_path);
/// The same of a key of a manifest's files.
[[nodiscard]] std::optional<std::string> vocabulary_universe_of(NeighbourSet& neighbours, const Text& file_path);

/// The keys of the manifest's `files` that are vocabulary paths, as they are spelled there, sorted.
[[nodiscard]] std::vector<std::string> _vocabulary_manifest_paths(NeighbourSet& neighbours, const Manifest& manifest);

// ---- names of tokens -------------------------------------------------------------------------------------

/// Walks the names in a value one at a time: `name` fields, then what the values hold, then the keys, of each
/// object, depth first. A text in a list or as any other value is no name. The same one may come out twice.
class VocabularyEntryNames {
 public:
  explicit VocabularyEntryNames(const Value& value);
  /// The next name, or absent at the end. The view lives as long as the value is shared by anyone.
  [[nodiscard]] std::optional<std::string_view> next();

 private:
  struct Level {
    Value container;  ///< a list or a document
    std::size_t step = 0;
  };
  void enter(const Value& value);

  std::vector<Level> levels_;
};
[[nodiscard]] VocabularyEntryNames _iter_vocabulary_entry_names(const Value& value);

/// The distinct names in the token sections that are retired, sorted.
[[nodiscard]] std::vector<std::string> _retired_function_names_in_vocabulary(NeighbourSet& neighbours, const Document& vocabulary);
/// Throws SyncError naming the first five.
void _validate_no_retired_function_tokens(NeighbourSet& neighbours, const Document& vocabulary);

// ---- validation ------------------------------------------------------------------------------------------

/// `named_universe` null: the document's own name counts.
[[nodiscard]] Document _validate_vocabulary_data(NeighbourSet& neighbours, const Value& vocabulary, const Value& expected_era_number,
                                                 const Value& named_universe);
[[nodiscard]] Document _validate_vocabulary_bytes(NeighbourSet& neighbours, std::string_view data, const Value& expected_era_number,
                                                  const Value& named_universe = {});
[[nodiscard]] Document _validate_vocabulary_file(NeighbourSet& neighbours, const std::string& path, const Value& expected_era_number,
                                                 const Value& named_universe = {});
/// The catalogue, checked against the manifest's entry: it has no repair of its own.
[[nodiscard]] Document _validate_functions_file(NeighbourSet& neighbours, const std::string& data_dir, const Manifest& manifest);

/// Universe to merged vocabulary, in the order of paths. Reads every file anew.
[[nodiscard]] Document _validate_manifest_vocabulary_files(NeighbourSet& neighbours, const std::string& data_dir, const Manifest& manifest);
/// The same for files on their way to `live_dir`: a catalogue that has not changed is not staged, and read there.
[[nodiscard]] Document validate_staged_vocabulary_files(NeighbourSet& neighbours, const std::string& staging_dir,
                                                        const std::string& live_dir, const Manifest& manifest);

/// `metadata` of the first vocabulary that has it as an object (none at all counts as an empty one); else empty.
[[nodiscard]] Document _first_vocabulary_metadata(const Value& vocabularies);

}  // namespace brackenfen::sync
