// The gates of a transition: each asks the server afresh which era is active, and gives one verdict.
#include "sync/base/error.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/era/era_current.hpp"

namespace brackenfen::sync {
namespace {

[[noreturn]] void refuse_era(const Value& active_era_number, const Value& expected_era_id) {
  throw Error(
      error_class::EraError,
      "Active era_number=" + to_text(active_era_number) + " does not match requested transition era_number=" + to_text(expected_era_id),
      Document{{"server_era_number", active_era_number}});
}

}  // namespace

SyncManager::ActiveEra SyncManager::_fetch_active_era_for_transition(NeighbourSet& neighbours, bool allow_closing) {
  const std::string url = _server_url.get() + std::string(ERA_CURRENT_PATH);
  const HttpResult response = _http_get(neighbours, url);
  if (response.status != 200) {
    throw Error(error_class::EraError, "Failed to confirm active era: HTTP " + std::to_string(response.status),
                Document{{"url", url}, {"status", response.status}});
  }
  ActiveEra active;
  try {
    active.era_manifest = parse_era_current(response.body);
    active.era_number = to_integer(active.era_manifest.get("era_number"));
  } catch (const Error&) {
    throw EraError("Failed to parse active era response during transition");
  }
  const Value& state = active.era_manifest.get("state");
  if (state != Value("active") && !(allow_closing && state == Value("closing"))) {
    throw EraError("Active era confirmation for era_number=" + to_text(active.era_number) + " returned state=" + to_quoted(state));
  }
  return active;
}

Document SyncManager::_confirm_active_era(NeighbourSet& neighbours, const Value& expected_era_id, bool allow_closing) {
  ActiveEra active = _fetch_active_era_for_transition(neighbours, allow_closing);
  if (active.era_number != to_integer(expected_era_id)) refuse_era(active.era_number, expected_era_id);
  return std::move(active.era_manifest);
}

std::optional<Value> SyncManager::_check_transition_superseded(NeighbourSet& neighbours, const Value& expected_era_id, bool allow_closing) {
  ActiveEra active = _fetch_active_era_for_transition(neighbours, allow_closing);
  const int order = compare_integers(active.era_number, to_integer(expected_era_id));
  if (order > 0) return std::move(active.era_number);
  if (order < 0) refuse_era(active.era_number, expected_era_id);
  return std::nullopt;
}

}  // namespace brackenfen::sync
