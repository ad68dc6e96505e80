// The one function through which every GET passes.
#pragma once

#include "sync/transport/http.hpp"

namespace brackenfen::sync {

/// Sends the request and returns its response. HTTP error statuses that are not transient are a normal
/// result. A transient status or a network failure throws SyncUnavailableError after this one attempt.
/// `timeout_seconds` bounds connecting, the wait for the headers and the whole body, each counted anew. What `sink`
/// throws leaves as it is.
[[nodiscard]] HttpResult _request_with_sync_retries(const Seams& seams, NeighbourSet& neighbours, const HttpRequest& request,
                                                    float timeout_seconds, ResponseSink* sink = nullptr);

}  // namespace brackenfen::sync
