// Structured events: what the library tells an operator about transport and downloads.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The one exit to the log: "brackenfen_sync_event %s" with the event as JSON with sorted keys, and the
/// event itself as the record's structured payload. Repeats are held back, see event_counts.hpp. What the log
/// throws leaves it.
void _emit_brackenfen_sync_event(const Document& event);

/// "warning" for what asks for an operator, else "info".
[[nodiscard]] std::string_view _sync_event_level_name(const Document& event);

/// Builds and emits an event of `event_type`, `file`, `count`, `reason` and those of `fields` that are not
/// null. `count` that does not convert to an integer counts as 0.
void _log_sync_event(std::string_view event_type, std::string_view file_path, const Value& count, std::string_view reason,
                     const Document& fields = {});

/// The URL's path, else the URL, else "<unknown>". Neither host nor query reaches the log.
[[nodiscard]] std::string _sync_endpoint_from_url(std::string_view url);
/// A short name of the requested file; empty where there is none.
[[nodiscard]] std::string _sync_event_file_from_url(std::string_view url);

}  // namespace brackenfen::sync
