#include "sync/transport/events.hpp"

#include <algorithm>
#include <optional>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/transport/event_counts.hpp"

namespace brackenfen::sync {
namespace {

/// The URL's path; absent where the URL cannot be split.
std::optional<std::string> path_of(std::string_view url) {
  try {
    return split_url(url).path;
  } catch (const Error& error) {
    if (error.is(error_class::ValueError)) return std::nullopt;
    throw;
  }
}

bool asks_for_an_operator(const Document& event) {
  const std::string next_action = ascii_lower(text_or_empty(event.get("next_action")));
  const std::string recovery = ascii_lower(text_or_empty(event.get("recovery")));
  const auto names = [&](std::string_view action) { return next_action.find(action) != std::string::npos; };
  return names("contact_brackenfen") || names("contact brackenfen") || names("reauthenticate") || recovery == "operator_fix_required" ||
         recovery == "reauthenticate";
}

}  // namespace

std::string_view _sync_event_level_name(const Document& event) {
  const std::string event_type = text_or_empty(event.get("event_type"));
  if (event_type == "sync_recovered_status") return "info";
  if (event_type == "checksum_repair_exhausted") return "warning";
  if (asks_for_an_operator(event)) return "warning";
  if (event_type == "sync_unavailable_status" && event.get("retryable").is_exactly(false)) return "warning";
  return "info";
}

void _emit_brackenfen_sync_event(const Document& event) {
  const Value masked = mask_secrets(Value(event));  // before anything counts it or writes it
  const Document& shown = *masked.if_document();
  if (!_should_emit_sync_event(shown)) return;
  const LogLevel level = _sync_event_level_name(shown) == "warning" ? LogLevel::Warning : LogLevel::Info;
  LogSink& sink = log_sink();
  if (!sink.enabled(level)) return;
  sink.write(LogRecord{level, "brackenfen_sync_event %s", {write_json(shown, JsonForm::SortedKeys)}, &shown});
}

void _log_sync_event(std::string_view event_type, std::string_view file_path, const Value& count, std::string_view reason,
                     const Document& fields) {
  std::vector<Member> members{
      {"event_type", event_type},
      {"file", file_path},
      {"count", to_integer_or_absent(count).value_or(Value(0))},
      {"reason", reason},
  };
  std::copy_if(fields.begin(), fields.end(), std::back_inserter(members), [](const Member& field) { return !field.value.is_null(); });
  _emit_brackenfen_sync_event(Document(std::move(members)));
}

std::string _sync_endpoint_from_url(std::string_view url) {
  const std::optional<std::string> path = path_of(url);
  if (path && !path->empty()) return *path;
  return url.empty() ? "<unknown>" : std::string(url);
}

std::string _sync_event_file_from_url(std::string_view url) {
  const std::string path = path_of(url).value_or("");
  std::vector<std::string> parts;
  for (const std::string_view part : split(path, "/")) {
    if (!part.empty()) parts.emplace_back(part);
  }
  auto first = parts.begin();
  const auto releases = std::find(parts.begin(), parts.end(), "releases");
  if (parts.size() >= 3 && parts[0] == "data" && parts[1] == "files") {
    first += 2;
  } else if (parts.end() - releases > 2) {
    first = releases + 2;  // what follows the tag
  }
  return join({first, parts.end()}, "/");
}

}  // namespace brackenfen::sync
