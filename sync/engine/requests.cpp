// Requests with the manager's own credentials.
#include "sync/base/error.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

RequestStart SyncManager::start_request() const {
  const std::shared_ptr<TokenSource> source = _get_token.get();
  if (!source) throw TypeError("get_token must be callable, got nothing");  // a later get_or_create may put nothing there
  return sync::start_request(*seams_.environment, *source);
}

HttpResult SyncManager::_http_get(NeighbourSet& neighbours, const std::string& url, std::int64_t range_start, std::int64_t range_end) {
  return sync::_http_get(seams_, neighbours, url, start_request(), range_start, range_end);
}

HttpResult SyncManager::_http_get_public(NeighbourSet& neighbours, const std::string& url, std::int64_t range_start,
                                         std::int64_t range_end) {
  return sync::_http_get_public(seams_, neighbours, url, {}, range_start, range_end);
}

}  // namespace brackenfen::sync
