// The shuffle seed, from /data/shuffle to its place beside the companion that proves its era.
#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/documents/shuffle_seed.hpp"
#include "sync/engine/sync_failure.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/backoff.hpp"

namespace brackenfen::sync {
namespace {

Value as_document(const Headers& headers) {
  std::vector<Member> fields;
  for (const auto& [name, value] : headers) fields.push_back({name, value});
  return Document(std::move(fields));
}

/// Throws EraError or SyncError where the answer is not one of that era.
void require_era(const HttpResult& response, const Value& expected_era_id, const std::string& url) {
  try {
    _validate_response_era_header(as_document(response.headers), expected_era_id, SHUFFLE_SEED_FILENAME);
  } catch (const Error& error) {
    if (!error.is(error_class::SyncError)) throw;
    throw Error(error.error_class(), error.text(), Document{{"url", url}});
  }
}

/// Whether the local seed is usable for the era. One that is not is told in the log.
bool local_seed_is_valid(const std::string& path, const Value& era_number) {
  try {
    _validate_shuffle_seed_file(path, era_number);
    return true;
  } catch (const Error& error) {
    if (!error.is(error_class::SyncError)) throw;
    log_warning("Local shuffle seed failed validation; re-downloading: %s", error.text());
    return false;
  }
}

}  // namespace

bool SyncManager::_download_shuffle_seed(NeighbourSet& neighbours, const Manifest& server_manifest,
                                         const std::optional<std::string>& target_data_dir) {
  const std::string path = join_path(directory_or_live(target_data_dir), SHUFFLE_SEED_FILENAME);
  const Value expected_era_id = manifest_integer(server_manifest.era_number(), "era_number");
  if (path_exists(path) && local_seed_is_valid(path, expected_era_id)) {
    // Across an era the seed is fetched again although a valid one lies here.
    const std::shared_ptr<Manifest> current = _manifest.get();
    if (current && current->era_number() == server_manifest.era_number()) return false;
  }
  _atomic_write(*seams_.files, *seams_.clock, path, fetch_shuffle_seed(neighbours, expected_era_id));
  if (!path_exists(path)) throw SyncError("Failed to download shuffle seed: shuffle_seed.enc was not written");
  // The seed comes before its companion: a crash between the two leaves a seed without proof, which is refused.
  _write_shuffle_seed_metadata(*seams_.files, *seams_.clock, path, expected_era_id);
  _validate_shuffle_seed_file(path, expected_era_id);
  return true;
}

std::string SyncManager::fetch_shuffle_seed(NeighbourSet& neighbours, const Value& expected_era_id) {
  const std::string url = _server_url.get() + "/data/shuffle";
  ServerWaitShown wait_shown;
  for (int attempt = 0;; ++attempt) {
    const auto wait_seconds = static_cast<float>(_backoff_delay_seconds(seams_, attempt));
    HttpResult response = _http_get(neighbours, url);
    if (response.status == 401) throw neighbours.auth().auth_error("Authentication failed while downloading shuffle seed: HTTP 401");
    if (response.status != 200) {
      throw Error(error_class::SyncError, "Failed to download shuffle seed: HTTP " + std::to_string(response.status),
                  Document{{"url", url}, {"status", response.status}});
    }
    require_era(response, expected_era_id, url);
    const bool broke_off = fails_with_sync_error([&] { _validate_shuffle_seed_bytes(response.body); });  // it is of another size
    if (!broke_off) return std::move(response.body);
    wait_shown.failed(url, attempt + 1, "partial_transfer", static_cast<double>(wait_seconds));
    _emit_sync_backoff_wait(seams_, "shuffle_seed_download", attempt, "partial_transfer", SHUFFLE_SEED_FILENAME, wait_seconds);
    _sleep_for_sync_backoff(seams_, wait_seconds);
  }
}

}  // namespace brackenfen::sync
