#include "sync/neighbours/rotation_planner.hpp"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "sync/base/values/convert.hpp"
#include "sync/neighbours/rotation_order.hpp"
#include "sync/neighbours/rotation_scope.hpp"
#include "sync/neighbours/rotation_state.hpp"

namespace brackenfen::sync {
namespace {

using Role = RotationSelection::Role;

/// Wide enough for the sum of any number of sizes.
__extension__ using WideBytes = __int128;

constexpr std::int64_t MOST_BYTES = std::numeric_limits<std::int64_t>::max();

Value to_value(WideBytes bytes) {
  if (bytes <= MOST_BYTES) return static_cast<std::int64_t>(bytes);
  std::string digits;
  for (; bytes > 0; bytes /= 10) digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(bytes % 10)));
  return Value::integer_from_decimal(digits);
}

/// An entry that states no usable size takes no room here: the pass itself says what is wrong with it.
std::int64_t planned_size(const Value& stated) {
  if (const auto small = stated.if_integer()) return std::max<std::int64_t>(*small, 0);
  if (stated.is_null()) return 0;
  try {
    const Value size = to_integer(stated);
    if (size.if_big_integer()) return compare_integers(size, 0) < 0 ? 0 : MOST_BYTES;
    return std::max<std::int64_t>(*size.if_integer(), 0);
  } catch (const Error&) {
    return 0;
  }
}

/// A feature and its companions, which come and go together.
struct Unit {
  std::uint64_t rank;
  std::string_view name;
  std::vector<std::uint32_t> members;
};

/// One plan in the making.
class Planner {
 public:
  Planner(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings, const RotationStateRef& previous,
          const PlanningFacts& facts)
      : artifacts_(*artifacts), settings_(settings), previous_(previous), facts_(facts) {
    selection_.artifacts = artifacts;
    selection_.roles.assign(artifacts_.descriptors.size(), Role::OutOfScope);
    find_held();
    sort_out_artifacts();
    set_budget();
  }

  RotationPlan from_active_state() {
    const Value generation = previous_ ? previous_->generation() : Value(0);
    const Value seed = previous_ ? previous_->seed() : Value();
    disk_decides_ = held_bytes() > room_for_held_;
    if (disk_decides_) {
      count_what_is_here();
      keep_held(units_in(RotationOrder(seed, generation)));
    } else {
      for (const std::uint32_t index : eligible_) {
        if (held(index)) take(index);
      }
    }
    return finish(generation, seed, {});
  }

  RotationPlan next() {
    const bool rotates = settings_.scoped && (!previous_ || is_due());
    const Value generation = rotates ? next_generation() : previous_ ? previous_->generation() : Value(0);
    const Value seed = rotates ? to_integer(settings_.seed) : previous_ ? previous_->seed() : Value();
    select(RotationOrder(seed, generation), rotates);
    return finish(generation, seed, rotates ? Value(facts_.now_seconds) : Value());
  }

 private:
  [[nodiscard]] const ArtifactDescriptor& artifact(std::uint32_t index) const { return artifacts_.descriptors[index]; }
  [[nodiscard]] bool held(std::uint32_t index) const { return held_[index]; }
  [[nodiscard]] bool present(std::uint32_t index) const {
    const ArtifactDescriptor& descriptor = artifact(index);
    return facts_.present && facts_.present(descriptor.relative_path, planned_size(descriptor.size_bytes), descriptor.sha256);
  }

  /// A state lists its paths mostly as the rows do, and none twice: then one walk finds them all.
  void find_held() {
    const TextList active = previous_ ? previous_->active_relative_paths() : TextList();
    const std::uint32_t count = static_cast<std::uint32_t>(artifacts_.descriptors.size());
    held_.assign(count, false);
    std::size_t next = 0;
    bool ascending = true;
    for (std::uint32_t index = 0; index < count && ascending; ++index) {
      const Text& path = artifact(index).relative_path;
      ascending = index == 0 || artifact(index - 1).relative_path < path;
      held_[index] = next < active.size() && active[next] == path;
      if (held_[index]) ++next;
    }
    if (ascending && next == active.size()) return;
    const TextSet set = set_of(active);
    for (std::uint32_t index = 0; index < count; ++index) held_[index] = contains(set, artifact(index).relative_path);
  }

  void sort_out_artifacts() {
    const ScopeFilter scope(settings_.scope);
    for (std::uint32_t index = 0; index < artifacts_.descriptors.size(); ++index) {
      const ArtifactDescriptor& descriptor = artifact(index);
      if (!descriptor.is_optional_feature()) {
        selection_.roles[index] = Role::Mandatory;
        if (!present(index)) mandatory_bytes_ += planned_size(descriptor.size_bytes);
        continue;
      }
      if (!scope.admits(descriptor)) continue;
      selection_.roles[index] = Role::Skipped;
      eligible_.push_back(index);
      eligible_bytes_ += planned_size(descriptor.size_bytes);
    }
  }

  /// What new features may take: all of an explicit budget that the disk has room for, or what is free but for a reserve.
  void set_budget() {
    room_ = std::max<WideBytes>(WideBytes(facts_.free_disk_bytes) - mandatory_bytes_, 0);
    explicit_ = settings_.scoped && !settings_.feature_budget_bytes.is_null() && !is_full_download(settings_.feature_budget_bytes);
    if (explicit_) {
      budget_ = planned_size(settings_.feature_budget_bytes);
      capacity_ = budget_;
      room_for_new_ = std::min(budget_, room_);
      room_for_held_ = room_;
    } else {
      room_for_new_ = room_ - room_ / RESERVE_DIVISOR;
      room_for_held_ = room_for_new_;
    }
  }

  [[nodiscard]] WideBytes held_bytes() const {
    WideBytes bytes = 0;
    for (const std::uint32_t index : eligible_) {
      if (held(index)) bytes += planned_size(artifact(index).size_bytes);
    }
    return bytes;
  }

  [[nodiscard]] bool is_due() const {
    if (facts_.rotation_due) return true;
    const auto* builtin = dynamic_cast<const BuiltinRotationState*>(previous_.get());
    const auto rotated_at = builtin ? builtin->rotated_at.if_integer() : std::nullopt;
    return rotated_at && facts_.frequency_seconds && WideBytes(*rotated_at) + *facts_.frequency_seconds <= facts_.now_seconds;
  }

  [[nodiscard]] Value next_generation() const {
    const auto number = previous_ ? previous_->generation().if_integer() : std::optional<std::int64_t>(0);
    return number && *number < MOST_BYTES ? *number + 1 : 1;
  }

  void take(std::uint32_t index) {
    selection_.roles[index] = Role::Selected;
    taken_bytes_ += planned_size(artifact(index).size_bytes);
  }

  void select(const RotationOrder& order, bool rotates) {
    if (eligible_bytes_ <= room_for_new_) {  // all of it fits, even if nothing of it is here
      for (const std::uint32_t index : eligible_) take(index);
      return;
    }
    disk_decides_ = !explicit_ || budget_ > room_for_new_ || (!rotates && held_bytes() > room_for_held_);
    if (disk_decides_) {
      const WideBytes here = count_what_is_here();
      const bool all_within_budget = !explicit_ || eligible_bytes_ <= budget_;
      if (all_within_budget && eligible_bytes_ - here <= room_for_new_) {
        for (const std::uint32_t index : eligible_) take(index);
        return;
      }
      const WideBytes disk = room_ + here;  // the same from rotation to rotation
      const WideBytes fits = disk - disk / RESERVE_DIVISOR;
      capacity_ = explicit_ ? std::min(budget_, fits) : fits;
    }
    const std::vector<Unit> units = units_in(order);
    if (!rotates) keep_held(units);
    for (const Unit& unit : units) {
      if (!take_whole(unit)) break;
    }
  }

  WideBytes count_what_is_here() {
    WideBytes bytes = 0;
    here_.assign(artifacts_.descriptors.size(), false);
    for (const std::uint32_t index : eligible_) {
      here_[index] = present(index);
      if (here_[index]) bytes += planned_size(artifact(index).size_bytes);
    }
    return bytes;
  }

  /// Bytes of the artifact that the disk must find room for, where the disk decides at all.
  [[nodiscard]] WideBytes arriving_bytes(std::uint32_t index) const {
    return disk_decides_ && !here_[index] ? planned_size(artifact(index).size_bytes) : 0;
  }

  [[nodiscard]] std::vector<Unit> units_in(const RotationOrder& order) const {
    std::vector<Unit> units;
    for (const std::uint32_t index : eligible_) {
      const std::string_view name = rotation_unit(artifact(index).relative_path);
      if (units.empty() || units.back().name != name) units.push_back({order.rank(name), name, {}});
      units.back().members.push_back(index);
    }
    std::ranges::sort(units, {}, [](const Unit& unit) { return std::pair(unit.rank, unit.name); });
    // Rows in no order scatter a unit over several runs, which are neighbours now.
    std::vector<Unit> merged;
    merged.reserve(units.size());
    for (Unit& unit : units) {
      if (merged.empty() || merged.back().name != unit.name) {
        merged.push_back(std::move(unit));
      } else {
        merged.back().members.insert(merged.back().members.end(), unit.members.begin(), unit.members.end());
      }
    }
    return merged;
  }

  /// Within a generation nothing goes but what departed, and what must be fetched anew and finds no room on the disk (a new
  /// era may replace every file, on a disk that is full of the old ones).
  void keep_held(const std::vector<Unit>& units) {
    for (const Unit& unit : units) {
      for (const std::uint32_t index : unit.members) {
        if (!held(index)) continue;
        if (arriving_bytes_ + arriving_bytes(index) > room_for_held_) continue;
        arriving_bytes_ += arriving_bytes(index);
        take(index);
      }
    }
  }

  /// False where the budget is used up. A unit that no budget of this size could hold is passed over, and so is one whose
  /// new files find no room on the disk beside what is there until it goes.
  bool take_whole(const Unit& unit) {
    WideBytes size = 0;
    WideBytes missing = 0;
    WideBytes arriving = 0;
    for (const std::uint32_t index : unit.members) {
      size += planned_size(artifact(index).size_bytes);
      if (selection_.roles[index] == Role::Selected) continue;
      missing += planned_size(artifact(index).size_bytes);
      arriving += arriving_bytes(index);
    }
    if (size > capacity_) return true;
    if (taken_bytes_ + missing > capacity_) return false;
    if (arriving_bytes_ + arriving > room_for_new_) return true;
    arriving_bytes_ += arriving;
    for (const std::uint32_t index : unit.members) {
      if (selection_.roles[index] != Role::Selected) take(index);
    }
    return true;
  }

  RotationPlan finish(const Value& generation, const Value& seed, const Value& rotated_at) {
    std::vector<Text> active, mandatory, skipped;
    for (std::uint32_t index = 0; index < artifacts_.descriptors.size(); ++index) {
      const Role role = selection_.roles[index];
      const Text& path = artifact(index).relative_path;
      if (role == Role::Mandatory || role == Role::Selected) active.push_back(path);
      if (role == Role::Mandatory) mandatory.push_back(path);
      if (role == Role::Skipped) skipped.push_back(path);
    }
    selection_.active_relative_paths = std::move(active);
    selection_.mandatory_relative_paths = std::move(mandatory);
    selection_.skipped_relative_paths = std::move(skipped);
    selection_.mandatory_bytes = to_value(mandatory_bytes_);
    selection_.feature_budget_bytes = to_value(room_for_new_);
    selection_.seed = seed;
    RotationPlan plan{std::move(selection_), nullptr, nullptr};
    if (!settings_.scoped && !previous_) return plan;
    if (previous_ && rotated_at.is_null()) {
      // Where nothing rotates any more it only keeps generation and seed, for the day when something does.
      plan.candidate_state = previous_->with_active_relative_paths(settings_.scoped ? plan.selection.active_relative_paths : TextList());
      return plan;
    }
    auto candidate = std::make_shared<BuiltinRotationState>();
    candidate->active_paths = plan.selection.active_relative_paths;
    candidate->generation_number = generation;
    candidate->seed_number = seed;
    candidate->generator = RotationOrder(seed, generation).rng_state();
    candidate->rotated_at = rotated_at;
    plan.candidate_state = std::move(candidate);
    return plan;
  }

  const Artifacts& artifacts_;
  const ArtifactRotationSettings& settings_;
  const RotationStateRef& previous_;
  const PlanningFacts& facts_;

  RotationSelection selection_;
  std::vector<bool> held_;  ///< for each artifact, whether it is active already
  std::vector<std::uint32_t> eligible_;
  WideBytes mandatory_bytes_ = 0;  ///< still to come
  WideBytes eligible_bytes_ = 0;
  WideBytes room_ = 0;  ///< free on the disk once the mandatory files are here
  bool explicit_ = false;
  WideBytes budget_ = 0;         ///< where it is explicit
  WideBytes capacity_ = 0;       ///< for all selected features together
  WideBytes room_for_new_ = 0;   ///< for those of them that are still to come
  WideBytes room_for_held_ = 0;  ///< for those to come that are active already: a budget counts from the next rotation on
  WideBytes taken_bytes_ = 0;
  WideBytes arriving_bytes_ = 0;
  bool disk_decides_ = false;  ///< else the budget alone does, and no file need be looked at
  std::vector<bool> here_;     ///< for each artifact, where the disk decides
};

}  // namespace

RotationPlan builtin_plan_rotation(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                                   const RotationStateRef& previous_state, const PlanningFacts& facts) {
  return Planner(artifacts, settings, previous_state, facts).next();
}

RotationPlan builtin_plan_from_active_rotation_state(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                                                     const RotationStateRef& active_state, const PlanningFacts& facts) {
  return Planner(artifacts, settings, active_state, facts).from_active_state();
}

}  // namespace brackenfen::sync
