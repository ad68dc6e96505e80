// Runtime modules: which kinds are still supported, and who is told that one has landed.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

class RuntimeModuleFreshness {
 public:
  virtual ~RuntimeModuleFreshness() = default;
  /// The suffix that marks a kind as a runtime module; built in "_module".
  [[nodiscard]] virtual const std::string& runtime_module_kind_suffix() const = 0;
  /// Whether this library still supports that kind; built in "vault_module" alone.
  [[nodiscard]] virtual bool is_runtime_module_kind(std::string_view kind) const = 0;

  static const RuntimeModuleFreshness& builtin();
};

/// Told of every file that lands in the live directory. Called on the thread that landed it, several at once; what it
/// throws ends the operation. The kind and the digest are what the manifest has, of whatever type; empty texts where it has
/// none.
class RuntimeFreshnessGuard {
 public:
  virtual ~RuntimeFreshnessGuard() = default;
  virtual void record_sync_update(std::string_view relative_path, const Value& kind, const Value& sha256) = 0;
};

}  // namespace brackenfen::sync
