// The back-off context of a thread that entered none, where the host has a way of its own to hand one on.
#pragma once

#include "sync/neighbours/sync_backoff.hpp"

namespace brackenfen::sync {

/// Asked on any thread at each use of the built-in provider there; throws Interrupted.
using InheritedContext = BackoffContext (*)();
/// nullptr for none (the default): a thread begins with an empty context.
void set_inherited_context(InheritedContext inherited) noexcept;

}  // namespace brackenfen::sync
