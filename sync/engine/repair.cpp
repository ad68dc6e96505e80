// Fetching named files again, and one file through the same gate.
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/documents/shown_files.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

SyncResult SyncManager::repair(const std::vector<std::string>& corrupted_files) {
  require_own_process();
  return run_operation(activity_, operation::REPAIR, phase::WAITING, [&] {
    DirectoryLock::Hold unit_of_work(_directory_lock);
    SyncResult result;
    try {
      result = repair_files(corrupted_files);
    } catch (const Error& error) {
      if (!error.is(error_class::ManifestSupersededError)) throw;
      log_warning("Manifest changed during repair; refreshing manifest and running full sync: %s", error.text());
      result = _sync_with_manifest_refresh();
    }
    unit_of_work.release();
    return result;
  });
}

SyncResult SyncManager::repair_files(const std::vector<std::string>& corrupted_files) {
  SyncResult result;
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) return result;
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  result.era_number = manifest_integer(manifest->era_number(), "era_number");
  OwnFiles own_files(_data_dir.get());
  AnnouncedFiles announced;
  for (const std::string& file_path : corrupted_files) {
    const Value entry = manifest->file(file_path);
    if (entry.is_null()) continue;
    own_files.refuse(file_path);
    announced.add(entry.if_document());
  }
  Operation::enter_phase(phase::DOWNLOADING);
  announced.announce();
  bool vocabulary_changed = false;
  try {
    for (const std::string& file_path : corrupted_files)
      vocabulary_changed = repair_file(*neighbours, *manifest, file_path, result) || vocabulary_changed;
  } catch (...) {
    if (vocabulary_changed) restore_vocabulary(*neighbours);
    throw;
  }
  if (vocabulary_changed) restore_vocabulary(*neighbours);
  Operation::enter_phase(phase::COMMITTING);
  _hash_cache._persist_hash_cache();
  return result;
}

bool SyncManager::repair_file(NeighbourSet& neighbours, const Manifest& manifest, const std::string& file_path, SyncResult& result) {
  _directory_lock.require_directory();
  const Value files = manifest.files();
  const Document* entries = files.if_document();
  const Value* entry = entries ? entries->find(file_path) : nullptr;
  if (!entry) return false;
  const Document* stated = entry->if_document();
  if (_manifest_file_is_sync_excluded(neighbours, *entry)) {
    if (stated) Operation::count_file(shown_size(*stated));
    return false;
  }
  if (!stated) throw TypeError("the manifest's entry of " + file_path + " is not a JSON object");
  const Document file_info = without_stamps(*stated)
                                 .with("_manifest_version", manifest_integer(manifest.version(), "version"))
                                 .with("_manifest_era_id", manifest_integer(manifest.era_number(), "era_number"));
  if (replace_vocabulary(neighbours, file_path, file_info, result)) {
    Operation::count_file(shown_size(*stated));
    return true;
  }
  _download_file(neighbours, file_path, file_info, result);
  return file_path == FUNCTIONS_RELATIVE_PATH;
}

SyncResult SyncManager::ensure_manifest_file_available(const std::string& file_path, const Document& file_info) {
  require_own_process();
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  SyncResult result;
  if (_manifest_file_is_sync_excluded(*neighbours, Value(file_info))) return result;
  run_operation(activity_, operation::DOWNLOAD, phase::DOWNLOADING, [&] { _download_file(*neighbours, file_path, file_info, result); });
  return result;
}

}  // namespace brackenfen::sync
