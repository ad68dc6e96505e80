#include "sync/transport/unavailable.hpp"

#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/transport/events.hpp"

namespace brackenfen::sync {
namespace {

Value list_or_empty(const Value& value) { return value.truthy() ? value : Value(List()); }

bool has_details(const SyncUnavailableError::Details& details) {
  return !details.dependency.is_null() || !details.retryable.is_null() || !details.recovery.is_null();
}

Document fields_of(const SyncUnavailableError::Details& details) {
  const std::string url = details.url.truthy() ? to_text(details.url) : std::string();
  return {
      {"url", url},
      {"endpoint", _sync_endpoint_from_url(url)},
      {"attempts", to_integer(details.attempts)},
      {"statuses", list_or_empty(details.statuses)},
      {"failures", list_or_empty(details.failures)},
      {"server_error_code", details.server_error_code},
      {"dependency", details.dependency},
      {"retryable", details.retryable},
      {"recovery", details.recovery},
      {"reason", details.reason},
      {"typed_details", details.typed_details.is_null() ? has_details(details) : details.typed_details.truthy()},
  };
}

}  // namespace

SyncUnavailableError::SyncUnavailableError(const Details& details)
    : Error(error_class::SyncUnavailableError, _build_message(fields_of(details)), fields_of(details)) {}

std::string SyncUnavailableError::_build_message(const Document& fields) {
  std::vector<std::string> pieces{
      "BrackenFen data sync unavailable after " + to_text(fields.get("attempts")) + " attempt(s).",
      "endpoint=" + to_text(fields.get("endpoint")),
      "url=" + to_text(fields.get("url")),
  };
  const auto add = [&](const char* label, const char* field) {
    if (const Value& value = fields.get(field); value.truthy()) pieces.push_back(std::string(label) + to_text(value));
  };
  add("statuses=", "statuses");
  add("failures=", "failures");
  add("server_error=", "server_error_code");
  add("dependency=", "dependency");
  if (const Value& retryable = fields.get("retryable"); !retryable.is_null())
    pieces.emplace_back(retryable.truthy() ? "retryable=True" : "retryable=False");
  add("recovery=", "recovery");
  add("reason=", "reason");
  return join(pieces, " ");
}

SyncUnavailableError _sync_unavailable_from(std::string_view url, int attempts, const List& statuses, const List& failures,
                                            const Document& details) {
  const Value& error_code = details.get("error_code");
  bool typed = false;
  for (const char* key : {"error_code", "dependency", "retryable", "recovery"}) typed = typed || !details.get(key).is_null();
  return SyncUnavailableError({
      .url = url,
      .attempts = attempts,
      .statuses = statuses,
      .failures = failures,
      .server_error_code = error_code.truthy() ? error_code : details.get("error"),
      .dependency = details.get("dependency"),
      .retryable = details.get("retryable"),
      .recovery = details.get("recovery"),
      .reason = details.get("reason"),
      .typed_details = typed,
  });
}

}  // namespace brackenfen::sync
