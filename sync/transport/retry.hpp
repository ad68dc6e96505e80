// The one loop through which every GET passes: an outage of the server is waited out, however long it lasts.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/transport/http.hpp"

namespace brackenfen::sync {

/// Appends and keeps the newest `limit`.
template <typename T>
void _append_limited(std::vector<T>& values, T value, std::size_t limit = 20) {
  values.push_back(std::move(value));
  if (values.size() > limit) values.erase(values.begin(), values.end() - static_cast<std::ptrdiff_t>(limit));
}

/// Sends the request until it is answered. Every status that is not transient is a normal result.
///
/// A transient status and a network failure are waited out, without a limit of attempts or time. The operator is
/// told once that the service is gone and once that it is back; each wait shows in the log and in
/// sync-progress.json. Throws SyncUnavailableError where the server itself says, in the body of a transient
/// status, that retrying cannot help, SyncBackoffCancelled where the back-off context asks to stop, and at once
/// whatever else fails: a request that must not be sent, the progress file, the log, the sink.
///
/// The first attempt goes by the request's environment, each later one reads it anew. `timeout_seconds` bounds connecting, the wait for the
/// headers and the whole body of one attempt, each counted anew. Blocks the calling thread; any thread.
[[nodiscard]] HttpResult _request_with_sync_retries(const Seams& seams, NeighbourSet& neighbours, HttpRequest request,
                                                    float timeout_seconds, ResponseSink* sink = nullptr);

}  // namespace brackenfen::sync
