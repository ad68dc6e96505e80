// Has the server moved past the manifest generation that a file was taken from?
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync {

std::optional<HttpResult> SyncManager::_manifest_version_probe_once(NeighbourSet& neighbours, const std::string& url) {
  neighbours.transport_security().validate_bearer_transport_url(url);
  // Past the retry loop on purpose: a check made from inside a failing download must not wait through a
  // second back-off.
  const HttpRequest request = authenticated_request(url, start_request());
  const auto timeout_seconds = static_cast<float>(_sync_manifest_version_http_timeout_seconds(*request.environment));
  try {
    const std::unique_ptr<HttpResponse> response = _open_request(seams_, neighbours, request, timeout_seconds);
    const bool is_error = response->status() >= 400;
    return HttpResult{response->status(), _response_headers(*response),
                      is_error ? _read_http_error_body(*response, timeout_seconds) : _read_response_body(*response, timeout_seconds)};
  } catch (const Error& error) {
    if (!error.is(error_class::OSError)) throw;
    log_debug("Manifest version one-shot probe failed during checksum repair: %s", error.text());
    return std::nullopt;
  }
}

bool SyncManager::_download_manifest_superseded(NeighbourSet& neighbours, const Document& file_info) {
  const Value* stamp = file_info.find("_manifest_version");
  const std::optional<Value> expected_version = stamp ? to_integer_or_absent(*stamp) : std::nullopt;
  if (!expected_version) return false;  // a file without a generation stamp can never be superseded
  const Value* era_stamp = file_info.find("_manifest_era_id");
  const std::optional<Value> expected_era = era_stamp ? to_integer_or_absent(*era_stamp) : std::nullopt;

  std::optional<HttpResult> probe;
  try {
    probe = _manifest_version_probe_once(neighbours, _server_url.get() + "/data/manifest/version");
  } catch (const Error& error) {
    if (error.is(neighbours.auth().auth_error_class())) throw;
    log_debug("Manifest version probe failed during checksum repair: %s", error.text());
    return false;
  }
  if (!probe) return false;
  if (probe->status == 401) throw neighbours.auth().auth_error("Authentication failed while probing manifest version: HTTP 401");
  if (probe->status != 200) return false;

  Value server_version;
  std::optional<Value> server_era;
  try {
    const Value body = parse_json(probe->body);
    const Document* answer = body.if_document();
    if (!answer) throw TypeError("the answer is not a JSON object");
    server_version = to_integer(answer->get("version"));
    if (const Value& era = answer->get("era_number"); !era.is_null()) server_era = to_integer_or_absent(era);
  } catch (const Error& error) {
    log_debug("Manifest version probe was not parseable during checksum repair: %s", error.text());
    return false;
  }
  if (expected_era && server_era && !(*expected_era == *server_era)) return compare_integers(*server_era, *expected_era) > 0;
  return compare_integers(server_version, *expected_version) > 0;
}

}  // namespace brackenfen::sync
