// Which version of the library runs, and how it is brought up to a newer one.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

namespace error_class {
/// The built-in class, used where the host has none.
extern const ErrorClass LibraryUpdateRequired;
}  // namespace error_class

class Deployment {
 public:
  struct UpdateResult {
    bool success = true;
    std::string warning;  ///< why not
  };

  virtual ~Deployment() = default;
  [[nodiscard]] virtual std::string current_version() const = 0;
  /// Whether there is a newer version than `current_version`. May throw a connection error.
  [[nodiscard]] virtual bool check_update(const std::string& current_version) const = 0;
  /// Negative where `left` is older than `right`, which a server wrote. Throws ValueError for what is no version.
  [[nodiscard]] virtual int compare_versions(const std::string& left, const Value& right) const = 0;
  /// Installs a version that is at least `min_version`.
  [[nodiscard]] virtual UpdateResult auto_update(const Value& min_version) const = 0;
  /// The class to catch by.
  [[nodiscard]] virtual const ErrorClass& library_update_required_class() const = 0;
  /// An error of that class, for the caller to throw.
  [[nodiscard]] virtual Error library_update_required(std::string text) const = 0;

  /// Knows the running library, orders versions as PEP 440 does, finds no newer one and cannot update.
  static const Deployment& builtin();
};

/// The warning of an update that failed without one.
inline constexpr std::string_view UPDATE_FAILED_WITHOUT_WARNING = "Could not auto-update to latest.";

}  // namespace brackenfen::sync
