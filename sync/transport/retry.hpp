// The one function through which every GET passes.
#pragma once

#include "sync/transport/http.hpp"

namespace brackenfen::sync {

/// Sends the request and returns its response. HTTP error statuses that are not transient are a normal
/// result. A transient status or a network failure throws SyncUnavailableError after this one attempt.
/// `timeout_seconds` bounds the connection and, counted anew, the whole body.
[[nodiscard]] HttpResult _request_with_sync_retries(const Seams& seams, NeighbourSet& neighbours, const HttpRequest& request,
                                                    float timeout_seconds, ResponseSink* sink = nullptr);

}  // namespace brackenfen::sync
