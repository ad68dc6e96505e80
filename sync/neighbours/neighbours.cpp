#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {
namespace {

class BuiltinNeighbourSet final : public NeighbourSet {
 public:
  const TransportSecurity& transport_security() override { return TransportSecurity::builtin(); }
  const Auth& auth() override { return Auth::builtin(); }
  const EraConfig& era_config() override { return EraConfig::builtin(); }
  const SyncProgress& sync_progress() override { return SyncProgress::builtin(); }
  const RuntimeModuleFreshness& runtime_module_freshness() override { return RuntimeModuleFreshness::builtin(); }
  const ArtifactRotation& artifact_rotation() override { return ArtifactRotation::builtin(); }
  const ReasonDescriptions& reason_descriptions() override { return ReasonDescriptions::builtin(); }
  const FunctionTokenSafety& function_token_safety() override { return FunctionTokenSafety::builtin(); }
  const FunctionsVocabulary& functions_vocabulary() override { return FunctionsVocabulary::builtin(); }
  const LoggingStyle& logging_style() override { return LoggingStyle::builtin(); }
  const RotationSettings& rotation_settings() override { return RotationSettings::builtin(); }
  const Deployment& deployment() override { return Deployment::builtin(); }
  const SearchTracking& search_tracking() override { return SearchTracking::builtin(); }
  const Identity& identity() override { return Identity::builtin(); }
  const AgentOnboarding& agent_onboarding() override { return AgentOnboarding::builtin(); }
};

/// A handle that owns nothing: what it points at lives for the whole process.
template <typename T>
std::shared_ptr<T> unowned(T& object) {
  return std::shared_ptr<T>(std::shared_ptr<void>(), &object);
}

class BuiltinNeighbours final : public Neighbours {
 public:
  std::shared_ptr<NeighbourSet> bind() override { return unowned<NeighbourSet>(set_); }
  std::shared_ptr<SyncBackoff> sync_backoff() override { return unowned(SyncBackoff::builtin()); }

 private:
  BuiltinNeighbourSet set_;  // without state, so every operation may share it
};

}  // namespace

Neighbours& Neighbours::builtin() {
  static Neighbours& neighbours = *new BuiltinNeighbours;
  return neighbours;
}

}  // namespace brackenfen::sync
