// The neighbouring modules as the core sees them: one small interface each, a built-in default, and a host
// that may put its own in the default's place.
#pragma once

#include <memory>

#include "sync/neighbours/agent_onboarding.hpp"
#include "sync/neighbours/artifact_rotation.hpp"
#include "sync/neighbours/auth.hpp"
#include "sync/neighbours/deployment.hpp"
#include "sync/neighbours/era_config.hpp"
#include "sync/neighbours/function_token_safety.hpp"
#include "sync/neighbours/functions_vocabulary.hpp"
#include "sync/neighbours/identity.hpp"
#include "sync/neighbours/logging_style.hpp"
#include "sync/neighbours/reason_descriptions.hpp"
#include "sync/neighbours/rotation_settings.hpp"
#include "sync/neighbours/runtime_module_freshness.hpp"
#include "sync/neighbours/search_tracking.hpp"
#include "sync/neighbours/sync_backoff.hpp"
#include "sync/neighbours/sync_progress.hpp"
#include "sync/neighbours/transport_security.hpp"

namespace brackenfen::sync {

/// The neighbours as one operation sees them. Each is looked up when it is first asked for and then stays
/// the same until the operation ends, so that a walk over 100,000 files costs no look-up per file.
/// Any thread of the operation. A reference lives as long as the set.
class NeighbourSet {
 public:
  virtual ~NeighbourSet() = default;
  [[nodiscard]] virtual const TransportSecurity& transport_security() = 0;
  [[nodiscard]] virtual const Auth& auth() = 0;
  [[nodiscard]] virtual const EraConfig& era_config() = 0;
  [[nodiscard]] virtual const SyncProgress& sync_progress() = 0;
  [[nodiscard]] virtual const RuntimeModuleFreshness& runtime_module_freshness() = 0;
  [[nodiscard]] virtual const ArtifactRotation& artifact_rotation() = 0;
  [[nodiscard]] virtual const ReasonDescriptions& reason_descriptions() = 0;
  [[nodiscard]] virtual const FunctionTokenSafety& function_token_safety() = 0;
  [[nodiscard]] virtual const FunctionsVocabulary& functions_vocabulary() = 0;
  [[nodiscard]] virtual const LoggingStyle& logging_style() = 0;
  [[nodiscard]] virtual const RotationSettings& rotation_settings() = 0;
  [[nodiscard]] virtual const Deployment& deployment() = 0;
  [[nodiscard]] virtual const SearchTracking& search_tracking() = 0;
  [[nodiscard]] virtual const Identity& identity() = 0;
  [[nodiscard]] virtual const AgentOnboarding& agent_onboarding() = 0;
};

class Neighbours {
 public:
  virtual ~Neighbours() = default;
  /// A fresh set, for one operation.
  [[nodiscard]] virtual std::shared_ptr<NeighbourSet> bind() = 0;
  /// The back-off provider in force, looked up at every use.
  [[nodiscard]] virtual std::shared_ptr<SyncBackoff> sync_backoff() = 0;

  /// The built-in defaults alone.
  static Neighbours& builtin();
};

}  // namespace brackenfen::sync
