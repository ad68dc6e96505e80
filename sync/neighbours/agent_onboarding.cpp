#include "sync/neighbours/agent_onboarding.hpp"

#include "sync/base/log.hpp"

namespace brackenfen::sync {
namespace {

class BuiltinAgentOnboarding final : public AgentOnboarding {
 public:
  void update_nudge(std::string_view reason, const Value& new_era_id, const Value& previous_era_id) const override {
    log_debug("Agent onboarding: %s, from era %s to era %s", reason, previous_era_id, new_era_id);
  }
};

}  // namespace

const AgentOnboarding& AgentOnboarding::builtin() {
  static const AgentOnboarding& onboarding = *new BuiltinAgentOnboarding;
  return onboarding;
}

}  // namespace brackenfen::sync
