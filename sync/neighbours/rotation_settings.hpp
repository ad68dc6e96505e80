// The rotation settings of a directory: how much room features may take, which are considered, how often they change.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"
#include "sync/neighbours/artifact_rotation.hpp"

namespace brackenfen::sync {

/// What is read of loaded settings.
struct LoadedRotationSettings {
  Value feature_budget_gb;  ///< units of 2^30 bytes, FULL_DOWNLOAD, or null for no explicit budget
  Value algorithm;
  Value rotation_seed;
  Value market;
  Value named_universes;  ///< a list of texts, or null
  Value family;
  Value subfamily;
  Value rotation_frequency;  ///< of built-in settings; a host's are asked through model_dump
  OwnRecordRef own;
};

class RotationSettings {
 public:
  virtual ~RotationSettings() = default;
  /// `stored_seed` is that of the directory's rotation state, or null; a host's module is not told it.
  [[nodiscard]] virtual LoadedRotationSettings load_rotation_settings(const std::string& data_dir, const Document& catalog_context,
                                                                      const Value& stored_seed) const = 0;
  /// The settings as one document, with `rotation_frequency` in it. Null where a host returns no document.
  [[nodiscard]] virtual Value model_dump(const LoadedRotationSettings& settings) const = 0;

  /// Reads FEATURE_ROTATION_SETTINGS_FILENAME, if it is there. Throws ValueError that names the file and the key.
  static const RotationSettings& builtin();
};

/// 64 bits, for a directory that has no seed yet.
[[nodiscard]] Value random_rotation_seed();

inline constexpr const char* FEATURE_ROTATION_SETTINGS_FILENAME = "feature-rotation-settings.json";

}  // namespace brackenfen::sync
