// What an operator is told when a service goes away and when it is back.
#pragma once

#include <string>
#include <string_view>

#include "sync/neighbours/neighbours.hpp"
#include "sync/transport/seams.hpp"

namespace brackenfen::sync {

/// Builds and emits the event "sync_unavailable_status" or "sync_recovered_status" from what a request has met
/// so far: HTTP statuses, class names of network failures, and the details that describe the failure.
/// `started_at` is the monotonic clock in seconds when the request began. Returns the event, also where the log
/// did not get it.
Document _emit_sync_unavailable_status(const Seams& seams, NeighbourSet& neighbours, std::string_view event_type, std::string_view url,
                                       const List& statuses, const List& failures, const Document& details, double started_at);

/// The operator's action: "reauthenticate", "contact_brackenfen" or "retry_later".
[[nodiscard]] std::string_view _sync_unavailable_action_recovery(const Document& details);
/// That action in words for people; empty where there are none.
[[nodiscard]] std::string _sync_unavailable_next_action(const ReasonDescriptions& descriptions, const Document& details);
[[nodiscard]] std::string_view _sync_local_data_status() noexcept;

}  // namespace brackenfen::sync
