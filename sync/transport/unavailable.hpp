// SyncUnavailableError: a sync dependency that can be retried remained unavailable.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

/// Fields, all in Error::fields(): "url", "endpoint" (texts), "attempts" (integer), "statuses", "failures"
/// (lists), "server_error_code", "dependency", "retryable", "recovery", "reason" (as given, null where
/// absent), "typed_details" (boolean).
class SyncUnavailableError : public Error {
 public:
  struct Details {
    Value url = {};
    Value attempts = 0;
    Value statuses = {};
    Value failures = {};
    Value server_error_code = {};
    Value dependency = {};
    Value retryable = {};
    Value recovery = {};
    Value reason = {};
    Value typed_details = {};
  };
  explicit SyncUnavailableError(const Details& details);

  /// The error's text from its fields.
  [[nodiscard]] static std::string _build_message(const Document& fields);
};

/// Builds, and does not throw, the error from the server's own words in `details`.
[[nodiscard]] SyncUnavailableError _sync_unavailable_from(std::string_view url, int attempts, const List& statuses, const List& failures,
                                                          const Document& details);

}  // namespace brackenfen::sync
