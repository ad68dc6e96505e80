#include "sync/documents/manifest_file.hpp"

#include "sync/base/files/paths.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {

void _write_manifest_json(Files& files, Clock& clock, std::string_view data_dir, const Document& manifest_data) {
  _atomic_write(files, clock, join_path(data_dir, MANIFEST_FILENAME), write_json(manifest_data, JsonForm::InsertionOrder));
}

bool has_manifest_json(Files& files, std::string_view data_dir) {
  const std::optional<FileStat> stat = stat_or_absent(files, join_path(data_dir, MANIFEST_FILENAME));
  return stat && stat->is_regular && stat->size_bytes > 0;
}

}  // namespace brackenfen::sync
