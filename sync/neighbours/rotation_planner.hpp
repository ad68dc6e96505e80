// The built-in planner: which features a client holds for a generation, within what its budget and its disk allow.
#pragma once

#include <cstdint>

#include "sync/neighbours/artifact_rotation.hpp"

namespace brackenfen::sync {

/// Of the bytes that a disk could hold, the share that is left free where the budget is "everything that fits".
inline constexpr std::int64_t RESERVE_DIVISOR = 10;

[[nodiscard]] RotationPlan builtin_plan_rotation(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                                                 const RotationStateRef& previous_state, const PlanningFacts& facts);
/// Everything that must be held, and the features of the state that are still eligible.
[[nodiscard]] RotationPlan builtin_plan_from_active_rotation_state(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                                                                   const RotationStateRef& active_state, const PlanningFacts& facts);

}  // namespace brackenfen::sync
