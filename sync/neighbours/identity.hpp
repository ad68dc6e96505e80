// Who works in a data directory.
#pragma once

#include <memory>
#include <string>

namespace brackenfen::sync {

/// The host's own record of an identity; carried to the search tracker and never read.
class TrackerIdentity {
 public:
  virtual ~TrackerIdentity() = default;
};

class Identity {
 public:
  virtual ~Identity() = default;
  /// Null where nobody is known. Throws what the host throws.
  [[nodiscard]] virtual std::shared_ptr<const TrackerIdentity> resolve_identity_for_data_dir(const std::string& data_dir) const = 0;

  /// Knows nobody.
  static const Identity& builtin();
};

}  // namespace brackenfen::sync
