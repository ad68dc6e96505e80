// The signals index: fetched, validated, and only then written.
#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

void unlink_if_there(Files& files, const Place& place) {
  try {
    files.unlink(place);
  } catch (const Error& error) {
    if (!error.is(error_class::FileNotFoundError)) throw;
  }
}

}  // namespace

bool SyncManager::_download_signals_index(NeighbourSet& neighbours, Manifest& server_manifest,
                                          const std::optional<std::string>& target_data_dir, SyncResult* result) {
  const std::optional<std::string> file_path = _manifest_signals_index_path(server_manifest);
  if (!file_path) return false;
  const std::string data_dir = directory_or_live(target_data_dir);
  const std::string local_path = _manifest_local_path(data_dir, *file_path);
  const Document entry = without_stamps(server_manifest.entry(*file_path));
  if (path_exists(local_path) && _local_file_matches_manifest(*file_path, local_path, entry)) {
    const std::optional<FileStat> before = stat_or_absent(*seams_.files, local_path);
    const std::string bytes = read_file(local_path);
    _validate_signals_index_bytes(bytes, server_manifest);
    _hash_cache.remember_if_unchanged(*file_path, local_path, _sha256(bytes), before);
    return false;
  }

  if (data_dir != _data_dir.get()) make_directories(data_dir);  // the live one is never made
  LocalFiles local_files(data_dir);
  unlink_if_there(*seams_.files, local_files.place(*file_path).beside(".tmp"));
  const std::string body = fetch_signals_index(neighbours, *file_path, first_base_url(entry, server_manifest.base_url()));
  _validate_signals_index_bytes(body, server_manifest);
  _repair_signals_index_manifest_entry(server_manifest, *file_path, body, "validated signals_index bytes from storage");
  const std::optional<FileStat> landed = _atomic_write(*seams_.files, *seams_.clock, local_files.place(*file_path), body);
  if (data_dir == _data_dir.get()) {
    const std::string sha256 = _sha256(body);
    if (const auto guard = runtime_freshness_guard.get()) guard->record_sync_update(*file_path, "signals_index", sha256);
    _hash_cache.remember_if_unchanged(*file_path, local_path, sha256, landed);
  }
  if (result != nullptr) result->bytes_downloaded += static_cast<std::int64_t>(body.size());
  return true;
}

std::string SyncManager::fetch_signals_index(NeighbourSet& neighbours, const std::string& file_path, const Value& base_url) {
  const std::string server_url = _server_url.get();
  const std::string url = _manifest_file_url(neighbours.transport_security(), server_url, file_path, base_url);
  HttpResult response = is_public_download(server_url, base_url, url) ? _http_get_public(neighbours, url) : _http_get(neighbours, url);
  if (response.status != 200) _raise_download_http_status(neighbours.auth(), file_path, response.status);
  return std::move(response.body);
}

}  // namespace brackenfen::sync
