#include "sync/transport/outage_status.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/transport/events.hpp"

namespace brackenfen::sync {
namespace {

const Value& or_else(const Value& value, const Value& fallback) { return value.truthy() ? value : fallback; }

/// The server's machine code, under either of its names.
const Value& error_code_of(const Document& details) { return or_else(details.get("error_code"), details.get("error")); }

std::string lower_text(const Value& value) { return ascii_lower(text_or_empty(value)); }

bool contains(const std::string& text, std::string_view part) { return text.find(part) != std::string::npos; }

}  // namespace

Document _emit_sync_unavailable_status(const Seams& seams, NeighbourSet& neighbours, std::string_view event_type, std::string_view url,
                                       const List& statuses, const List& failures, const Document& details, double started_at) {
  const Value& retryable = details.get("retryable");
  const double elapsed_seconds = seams.clock->monotonic_seconds() - started_at;
  std::vector<Member> members{
      {"event_type", event_type},
      {"endpoint", _sync_endpoint_from_url(url)},
      {"status_sequence", statuses},
      {"exception_sequence", failures},
      {"last_server_error_code", or_else(error_code_of(details), "")},
      {"dependency", or_else(details.get("dependency"), "network")},
      {"retryable", retryable.is_null() || retryable.truthy()},
      {"elapsed_seconds", std::max(elapsed_seconds, 0.0)},
      {"recovery", or_else(details.get("recovery"), "retry_with_backoff")},
      {"local_data_status", _sync_local_data_status()},
      {"next_action", _sync_unavailable_next_action(neighbours.reason_descriptions(), details)},
  };
  if (const Value& reason = details.get("reason"); !reason.is_null()) members.push_back({"reason", to_text(reason)});
  Document event(std::move(members));
  _emit_brackenfen_sync_event(event);
  return event;
}

std::string_view _sync_unavailable_action_recovery(const Document& details) {
  const std::string error_code = lower_text(error_code_of(details));
  const std::string dependency = lower_text(details.get("dependency"));
  const std::string reason = lower_text(details.get("reason"));
  const std::string recovery = lower_text(details.get("recovery"));
  if (contains(error_code, "auth") || contains(dependency, "auth") || contains(dependency, "wallet_token") || contains(error_code, "401"))
    return "reauthenticate";
  if (recovery == "operator_fix_required" || contains(error_code, "unconfigured") || contains(reason, "unconfigured"))
    return "contact_brackenfen";
  return "retry_later";
}

std::string _sync_unavailable_next_action(const ReasonDescriptions& descriptions, const Document& details) {
  ReasonDescription description = descriptions.describe_reason("SyncUnavailableError", _sync_unavailable_action_recovery(details),
                                                               error_code_of(details), details.get("dependency"), details.get("reason"));
  return description.rendered.empty() ? std::move(description.recovery) : std::move(description.rendered);
}

std::string_view _sync_local_data_status() noexcept { return "intact and preserved, but not run because fresh data is required"; }

}  // namespace brackenfen::sync
