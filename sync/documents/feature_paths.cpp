#include "sync/documents/feature_paths.hpp"

#include <algorithm>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view ARROW = ".arrow";
constexpr std::size_t SCOPED_SEGMENTS = 4;  // features/{universe}/{epoch}/{name}.arrow

/// Empty for anything but a text.
std::size_t segment_count(std::string_view path) { return static_cast<std::size_t>(std::ranges::count(path, '/')) + 1; }

std::string_view first_segment(std::string_view path) { return path.substr(0, path.find('/')); }

std::string_view last_segment(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string_view last_segment_but_one(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : last_segment(path.substr(0, slash));
}

/// A path below features/ whose file lies in a folder named after `epoch`.
bool is_scoped_feature(std::string_view path, std::string_view epoch) {
  return first_segment(path) == "features" && last_segment_but_one(path) == epoch && segment_count(path) >= SCOPED_SEGMENTS;
}

bool holds_entry(const Document& files, std::string_view path) { return files.get(path).is_document(); }

/// The path normalised, or empty where it is refused. Views `path` where that needs no change, else `buffer`.
std::string_view normalised_or_empty(const Value& path, std::string& buffer) {
  const std::optional<std::string_view> text = path.if_text();
  if (text && is_plain_relative_path(*text)) return *text;
  try {
    buffer = _safe_manifest_relative_path(path);
  } catch (const Error& error) {
    if (!error.is(error_class::ManifestError)) throw;
    buffer.clear();
  }
  return buffer;
}

std::optional<std::string_view> current_epoch(const EpochNames& epochs, std::string_view root) {
  if (root == "found_signals") return epochs.signal_is;
  if (root == "found_strategies") return epochs.strategy_is;
  if (root == "useful_signals") return epochs.signal_os;
  return std::nullopt;
}

}  // namespace

std::string _feature_epoch_for_expression_type(const EraConfig& era_config, const Value& expression_type) {
  const EpochNames& epochs = era_config.epoch_names();
  const bool strategy = ascii_lower(to_text(expression_type)).find("strategy") != std::string::npos;
  return strategy ? epochs.strategy_is : epochs.signal_is;
}

std::optional<std::string> _manifest_feature_relative_path(const EraConfig& era_config, const Value& files, const Value& feature_name,
                                                           const Value& expression_type, const Value& named_universe) {
  const Document* entries = files.if_document();
  const std::string_view name = stripped_text(feature_name);
  if (entries == nullptr || name.empty()) return std::nullopt;
  const std::string epoch = _feature_epoch_for_expression_type(era_config, expression_type);
  const std::string file_suffix = "/" + std::string(name) + std::string(ARROW);
  const std::string epoch_suffix = "/" + epoch + file_suffix;

  if (const std::string_view universe = stripped_text(named_universe); !universe.empty()) {
    std::string scoped = "features/" + std::string(universe) + epoch_suffix;
    if (holds_entry(*entries, scoped)) return scoped;
    // A feature that exists for another universe must not be answered with the file of none.
    const bool other_universe = std::ranges::any_of(*entries, [&](const Member& file) {
      return file.key.view().ends_with(epoch_suffix) && file.value.is_document() && is_scoped_feature(file.key, epoch);
    });
    if (other_universe) return std::nullopt;
  }

  std::string unscoped = "features" + epoch_suffix;
  if (holds_entry(*entries, unscoped)) return unscoped;
  const std::string unscoped_root = "features/" + epoch + "/";
  const Member* first = std::ranges::find_if(*entries, [&](const Member& file) {
    const std::string_view path = file.key;
    return path.ends_with(file_suffix) && file.value.is_document() && (is_scoped_feature(path, epoch) || path.starts_with(unscoped_root));
  });
  if (first == entries->end()) return std::nullopt;
  return first->key.str();
}

std::optional<std::string> _feature_artifact_family_prefix(const Value& feature_name) {
  std::string_view stem = stripped_text(feature_name);
  if (stem.empty()) return std::nullopt;
  if (stem.ends_with(ARROW)) stem.remove_suffix(ARROW.size());
  const std::vector<std::string_view> fields = split(stem, "__");
  if (fields.size() < 4 || fields[0].empty() || fields[1].empty()) return std::nullopt;
  return std::string(fields[0]) + "__" + std::string(fields[1]) + "__";
}

std::vector<std::string> _manifest_feature_companion_relative_paths(const Value& files, const Value& relative_path) {
  const Document* entries = files.if_document();
  std::string own_buffer;
  const std::string_view own_path = entries == nullptr ? std::string_view() : normalised_or_empty(relative_path, own_buffer);
  if (segment_count(own_path) < SCOPED_SEGMENTS || first_segment(own_path) != "features" || !own_path.ends_with(ARROW)) return {};
  std::string_view own_stem = last_segment(own_path);
  own_stem.remove_suffix(ARROW.size());
  const std::optional<std::string> family = _feature_artifact_family_prefix(own_stem);
  if (!family) return {};

  const std::string_view directory = own_path.substr(0, own_path.rfind('/') + 1);
  std::vector<std::string> companions;
  std::string buffer;
  for (const auto& [key, file_info] : *entries) {
    if (!file_info.is_document()) continue;
    const std::string_view path = normalised_or_empty(key, buffer);
    if (path == own_path || !path.starts_with(directory)) continue;
    const std::string_view file_name = last_segment(path);
    if (file_name.ends_with(ARROW) && file_name.substr(0, file_name.size() - ARROW.size()).starts_with(*family)) {
      companions.emplace_back(path);
    }
  }
  std::ranges::sort(companions);
  return companions;
}

std::vector<std::string> _manifest_feature_prefetch_relative_paths(const EraConfig& era_config, const Value& files,
                                                                   const Value& feature_name, const Value& expression_type,
                                                                   const Value& named_universe) {
  std::optional<std::string> own_path = _manifest_feature_relative_path(era_config, files, feature_name, expression_type, named_universe);
  if (!own_path) return {};
  std::vector<std::string> paths{*std::move(own_path)};
  for (std::string& companion : _manifest_feature_companion_relative_paths(files, paths.front())) {
    if (std::ranges::find(paths, companion) == paths.end()) paths.push_back(std::move(companion));
  }
  return paths;
}

std::optional<std::string> _agent_signal_group_key(const EraConfig& era_config, const Value& file_path, std::string_view prefix) {
  const std::optional<std::string_view> path = file_path.if_text();
  if (!path || !path->starts_with(prefix)) return std::nullopt;
  const std::string_view root = rstrip_char(prefix, '/');
  const std::optional<std::string_view> epoch = current_epoch(era_config.epoch_names(), root);
  if (!epoch || first_segment(*path) != root) return std::nullopt;

  std::size_t group_end = 0;  // of the first three segments
  for (int slash = 0; slash < 3; ++slash) {
    group_end = path->find('/', slash == 0 ? 0 : group_end + 1);
    if (group_end == std::string_view::npos) return std::nullopt;
  }
  const std::size_t epoch_end = path->find('/', group_end + 1);
  if (epoch_end == std::string_view::npos || path->substr(group_end + 1, epoch_end - group_end - 1) != *epoch) return std::nullopt;
  return std::string(path->substr(0, group_end));
}

}  // namespace brackenfen::sync
