// A full audit of the local files: every one is read, whatever the hash cache knows.
#include "sync/base/error.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

VerifyResult SyncManager::verify() {
  require_own_process();
  VerifyResult result;
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) return result;
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  const Value files = manifest->files();
  const Document* entries = files.if_document();
  std::vector<std::string> paths;
  if (const auto state = _active_rotation_state.get()) {
    paths = state->active_relative_paths();
  } else if (entries) {
    for (const Member& member : *entries) paths.push_back(member.key.str());
  }
  const std::string data_dir = _data_dir.get();
  for (const std::string& file_path : paths) {
    const Value* entry = entries ? entries->find(file_path) : nullptr;
    const Document* file_info = entry ? entry->if_document() : nullptr;
    if (!file_info) {
      result.missing_files.push_back(file_path);
      continue;
    }
    if (_manifest_file_is_sync_excluded(*neighbours, *entry)) continue;
    const std::string local_path = _manifest_local_path(data_dir, Value(file_path));
    const std::optional<FileStat> stat = seams_.files->stat(local_path);
    if (!stat) {
      result.missing_files.push_back(file_path);
      continue;
    }
    const Value* size = file_info->find("size_bytes");
    const Value& sha256 = file_info->get("sha256");
    const bool matches =
        (size ? *size : Value(0)) == Value(stat->size_bytes) && (!sha256.truthy() || Value(_sha256_file(local_path)) == sha256);
    if (!matches) result.corrupted_files.push_back(file_path);
  }
  result.valid = result.corrupted_files.empty() && result.missing_files.empty();
  return result;
}

}  // namespace brackenfen::sync
