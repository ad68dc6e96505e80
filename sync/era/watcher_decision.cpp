#include "sync/era/watcher_decision.hpp"

namespace brackenfen::sync {
namespace {

bool is_active(const EraReport& report) { return report.state == Value("active"); }

}  // namespace

EraReport read_era_report(const Document& normalised) {
  const Value* state = normalised.find("state");
  return {normalised.get("era_number"), state ? *state : Value("active"), normalised.get("next_closing_at")};
}

bool announces_close(const EraReport& report) { return is_active(report) && !report.next_closing_at.is_null(); }

EraAction decide_era_action(const EraReport& report, bool in_closing, const Value& last_known_era_id) {
  if (in_closing && is_active(report) && report.era_number == last_known_era_id) return EraAction::Cancel;
  if (!in_closing && report.state == Value("closing")) return EraAction::TransitToClosing;
  const bool both_known = !report.era_number.is_null() && !last_known_era_id.is_null();
  return both_known && report.era_number != last_known_era_id ? EraAction::TransitToNewEra : EraAction::None;
}

}  // namespace brackenfen::sync
