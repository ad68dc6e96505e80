#include "sync/documents/kept_files.hpp"

#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"

namespace brackenfen::sync {

bool is_checked_elsewhere(NeighbourSet& neighbours, const Text& file_path, const Value& file_info) {
  return vocabulary_universe_of(neighbours, file_path).has_value() || _manifest_file_is_sync_excluded(neighbours, file_info);
}

bool counts_as_promised(const Text& file_path, const Document& file_info) {
  return !is_vault_module(file_info) && file_path.view() != FUNCTIONS_RELATIVE_PATH;
}

bool states_other_bytes(const Document& file_info, const Document& promised) { return promised.get("sha256") != file_info.get("sha256"); }

bool keeps_other_bytes(NeighbourSet& neighbours, const Text& file_path, const Document& file_info, const Document& promised) {
  return file_path.view() != SIGNALS_INDEX_RELATIVE_PATH && !is_checked_elsewhere(neighbours, file_path, Value(file_info)) &&
         counts_as_promised(file_path, file_info) && states_other_bytes(file_info, promised);
}

}  // namespace brackenfen::sync
