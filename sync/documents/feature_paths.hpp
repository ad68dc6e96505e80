// Finding a feature's file and its companions in a manifest, and grouping signal artifacts for counting.
//
// Nothing here throws for bad input: the answer is then absent or empty.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/values/value.hpp"
#include "sync/neighbours/era_config.hpp"

namespace brackenfen::sync {

/// `expression_type` is text, or the `value` of an enumeration member.
[[nodiscard]] std::string _feature_epoch_for_expression_type(const EraConfig& era_config, const Value& expression_type);

/// The feature's path as `files` spells it.
[[nodiscard]] std::optional<std::string> _manifest_feature_relative_path(const EraConfig& era_config, const Value& files,
                                                                         const Value& feature_name, const Value& expression_type = "SIGNAL",
                                                                         const Value& named_universe = {});

/// The first two "__" fields of a feature's stem, with a further "__" behind them.
[[nodiscard]] std::optional<std::string> _feature_artifact_family_prefix(const Value& feature_name);

/// The other features of the same family in the same directory, sorted.
[[nodiscard]] std::vector<std::string> _manifest_feature_companion_relative_paths(const Value& files, const Value& relative_path);

/// The feature's own path, then its companions.
[[nodiscard]] std::vector<std::string> _manifest_feature_prefetch_relative_paths(const EraConfig& era_config, const Value& files,
                                                                                 const Value& feature_name,
                                                                                 const Value& expression_type = "SIGNAL",
                                                                                 const Value& named_universe = {});

/// The same of several features, one after the other: each path once, where it comes first. Two walks over the manifest,
/// however many features and companions there are. Throws Interrupted.
[[nodiscard]] std::vector<std::string> feature_prefetch_relative_paths(const EraConfig& era_config, const Value& files,
                                                                       const std::vector<std::string>& feature_names,
                                                                       const Value& expression_type = "SIGNAL",
                                                                       const Value& named_universe = {});

/// The first three segments of a current artifact path under `prefix` ("found_signals/", ...).
[[nodiscard]] std::optional<std::string> _agent_signal_group_key(const EraConfig& era_config, const Value& file_path,
                                                                 std::string_view prefix);

}  // namespace brackenfen::sync
