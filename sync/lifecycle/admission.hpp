// Which requests of a host a manager takes.
#pragma once

#include <string_view>

#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

/// Throws StateError where background work does not run.
void require_running(const SyncManager& manager);
/// For requests that need the directory as it is. Throws StateError too while an era transition runs, in whichever process;
/// `request` is named in its text.
void require_admission(const SyncManager& manager, std::string_view request);

}  // namespace brackenfen::sync
