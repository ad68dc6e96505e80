// The nudge that agents get when the data has moved to another era.
#pragma once

#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

class AgentOnboarding {
 public:
  virtual ~AgentOnboarding() = default;
  virtual void update_nudge(std::string_view reason, const Value& new_era_id, const Value& previous_era_id) const = 0;

  /// Notes the call at debug level.
  static const AgentOnboarding& builtin();
};

}  // namespace brackenfen::sync
