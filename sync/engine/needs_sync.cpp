// The cheap question: would a pass find something to do?
#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

/// The digest that the server states for manifest.json, under the first of its names that says something; null without.
Value stated_manifest_sha(const Document& answer) {
  for (const char* key : {"manifest_sha256", "manifest_sha", "sha256"}) {
    if (const Value& stated = answer.get(key); stated.truthy()) return stated;
  }
  return {};
}

/// Whether the file's digest is another, or cannot be told.
bool digest_differs(const std::string& local_path, const Value& expected_sha) {
  try {
    return Value(_sha256_file(local_path)) != expected_sha;
  } catch (const Error& error) {
    if (!error.is(error_class::OSError)) throw;
    return true;
  }
}

}  // namespace

bool SyncManager::needs_sync() {
  require_own_process();
  const ActivityScope scope(activity_);
  try {
    const bool needed = something_to_do();
    if (!needed) activity_->note_good(Activity::Good::NothingToDo);
    return needed;
  } catch (const std::exception& failure) {
    activity_->note_failure(nullptr, failure);
    throw;
  }
}

bool SyncManager::something_to_do() {
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  HttpResult response;
  try {
    response = _http_get(*neighbours, _server_url.get() + "/data/manifest/version");
  } catch (const Error& error) {
    if (error.is(error_class::SyncUnavailableError)) throw;
    return true;
  }
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest || response.status != 200) return true;

  const Value body = parse_json(response.body);
  const Document* answer = body.if_document();
  if (!answer)
    throw AttributeError("the answer is not a JSON object: '" + std::string(type_name(body)) + "' object has no attribute 'get'");
  const Value* server_version = answer->find("version");
  if ((server_version ? *server_version : Value(0)) != manifest->version()) return true;
  if (!has_manifest_json(*seams_.files, _data_dir.get())) return true;
  const Value server_manifest_sha = stated_manifest_sha(*answer);
  if (server_manifest_sha.truthy() && digest_differs(join_path(_data_dir.get(), MANIFEST_FILENAME), server_manifest_sha)) return true;

  if (_feature_rotation_needs_sync_for_manifest(*neighbours, *manifest)) return true;
  const std::shared_ptr<const RotationState> active_rotation_state = _active_rotation_state.get();
  const bool rotates = active_rotation_state && !active_rotation_state->active_relative_paths().empty();
  return !_local_manifest_files_complete(*neighbours, *manifest, rotates ? active_rotation_state.get() : nullptr);
}

}  // namespace brackenfen::sync
