#include "sync/documents/manifest_file.hpp"

#include "sync/base/files/paths.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {

void _write_manifest_json(Files& files, Clock& clock, std::string_view data_dir, const Document& manifest_data) {
  _atomic_write(files, clock, join_path(data_dir, MANIFEST_FILENAME), write_json(manifest_data, JsonForm::InsertionOrder));
}

}  // namespace brackenfen::sync
