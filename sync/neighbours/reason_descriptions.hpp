// What an operator is told about a failure, and what there is to do.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Either may be empty.
struct ReasonDescription {
  std::string rendered;  ///< for people
  std::string recovery;  ///< the action's name
};

class ReasonDescriptions {
 public:
  virtual ~ReasonDescriptions() = default;
  /// Describes a failure of the named class. `recovery` is one of the operator actions "retry_later",
  /// "reauthenticate" and "contact_brackenfen"; the other three are the failure's own words, null where it has
  /// none. Built in: one sentence and the action, which depend on `recovery` alone; another one counts as
  /// "retry_later".
  [[nodiscard]] virtual ReasonDescription describe_reason(std::string_view error_class_name, std::string_view recovery,
                                                          const Value& error_code, const Value& dependency, const Value& reason) const = 0;

  static const ReasonDescriptions& builtin();
};

}  // namespace brackenfen::sync
