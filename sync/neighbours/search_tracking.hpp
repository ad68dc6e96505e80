// The record of searches, which is told when a data directory enters another era.
#pragma once

#include <memory>
#include <string>

#include "sync/base/values/value.hpp"
#include "sync/neighbours/identity.hpp"

namespace brackenfen::sync {

/// One opened tracker. One thread. Its owner closes it.
class SearchTracker {
 public:
  virtual ~SearchTracker() = default;
  virtual void handle_era_transition(const Value& new_era_id, const Value& previous_era_id) = 0;
  virtual void close() = 0;
};

class SearchTracking {
 public:
  virtual ~SearchTracking() = default;
  /// A tracker that works for `identity`, which may be null.
  [[nodiscard]] virtual std::unique_ptr<SearchTracker> search_tracker(const std::string& data_dir,
                                                                      const std::shared_ptr<const TrackerIdentity>& identity) const = 0;
  /// A tracker to which no identity is given.
  [[nodiscard]] virtual std::unique_ptr<SearchTracker> search_tracker(const std::string& data_dir) const = 0;

  /// Its trackers note the call at debug level.
  static const SearchTracking& builtin();
};

}  // namespace brackenfen::sync
