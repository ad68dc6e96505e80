// What a host sees of a manager while it works.
#include <algorithm>

#include "sync/base/values/convert.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

std::optional<Progress> SyncManager::progress() const { return in_own_process() ? activity_->progress() : std::nullopt; }

Health SyncManager::health() const {
  Health health;
  const auto integer = [](const Value& value) { return value.is_integer() ? value : Value(); };
  if (const std::shared_ptr<Manifest> manifest = _manifest.get()) {
    health.era_number = integer(manifest->era_number());
    health.version = integer(manifest->version());
  }
  if (!in_own_process()) return health;
  health.running = _running;
  health.in_transition = _in_transition;
  health.consumers = _consumer_count;
  health.standing = activity_->standing();
  if (health.standing.last_good_at) health.last_good_age_s = std::max(seams_.clock->wall_seconds() - *health.standing.last_good_at, 0.0);
  return health;
}

}  // namespace brackenfen::sync
