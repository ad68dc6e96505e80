// What one poll of /era/current leads to: the watcher's whole judgement, as a function of what the server reported
// and what the watcher knew before.
#pragma once

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// What the watcher reads of an answer.
struct EraReport {
  Value era_number;
  Value state;
  Value next_closing_at;
};

/// Of a normalised answer. A missing `state` counts as active here.
[[nodiscard]] EraReport read_era_report(const Document& normalised);

/// Whether an active era has its end announced.
[[nodiscard]] bool announces_close(const EraReport& report);

enum class EraAction {
  None,
  Cancel,            ///< the close was called off: searches go on
  TransitToClosing,  ///< the era has begun to close
  TransitToNewEra,   ///< the server is in another era than the local data
};

/// `in_closing`: a close was seen and neither called off nor followed by another era. `last_known_era_id`: the era
/// that the local data is in, or null where that is not known.
[[nodiscard]] EraAction decide_era_action(const EraReport& report, bool in_closing, const Value& last_known_era_id);

}  // namespace brackenfen::sync
