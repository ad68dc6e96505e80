#include "sync/documents/feature_paths.hpp"

#include <algorithm>
#include <set>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view ARROW = ".arrow";
constexpr std::size_t FILES_PER_INTERRUPT_CHECK = 1024;
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
  } catch (const ManifestError&) {
    buffer.clear();
  }
  return buffer;
}

/// The files that any of some features may have: one walk over a manifest for all of them.
class FeatureFiles {
 public:
  FeatureFiles(const EraConfig& era_config, const Value& files, const std::vector<std::string>& names, const Value& expression_type,
               const Value& named_universe)
      : entries_(files.if_document()),
        epoch_(_feature_epoch_for_expression_type(era_config, expression_type)),
        universe_(stripped_text(named_universe)) {
    if (entries_ == nullptr) return;
    for (const std::string& name : names) by_file_name_[file_name_of(name)];
    for (std::size_t index = 0; index < entries_->size(); ++index) {
      if (index % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
      const Member& file = entries_->begin()[index];
      const auto wanted = by_file_name_.find(last_segment(file.key));
      if (wanted != by_file_name_.end() && file.value.is_document()) wanted->second.push_back(file.key);
    }
  }

  /// Of one of the names, stripped; absent where it has none for the universe that is asked for.
  [[nodiscard]] std::optional<std::string> path_of(std::string_view name) const {
    name = strip(name);
    if (entries_ == nullptr || name.empty()) return std::nullopt;
    const std::vector<std::string_view>& candidates = by_file_name_.at(file_name_of(name));
    const std::string file_suffix = "/" + std::string(name) + std::string(ARROW);
    const std::string epoch_suffix = "/" + epoch_ + file_suffix;
    if (!universe_.empty()) {
      std::string scoped = "features/" + universe_ + epoch_suffix;
      if (holds_entry(*entries_, scoped)) return scoped;
      // A feature that exists for another universe must not be answered with the file of none.
      const auto of_another = [&](std::string_view path) { return path.ends_with(epoch_suffix) && is_scoped_feature(path, epoch_); };
      if (std::ranges::any_of(candidates, of_another)) return std::nullopt;
    }

    std::string unscoped = "features" + epoch_suffix;
    if (holds_entry(*entries_, unscoped)) return unscoped;
    const std::string unscoped_root = "features/" + epoch_ + "/";
    const auto first = std::ranges::find_if(candidates, [&](std::string_view path) {
      return path.ends_with(file_suffix) && (is_scoped_feature(path, epoch_) || path.starts_with(unscoped_root));
    });
    if (first == candidates.end()) return std::nullopt;
    return std::string(*first);
  }

 private:
  static std::string file_name_of(std::string_view name) { return std::string(last_segment(strip(name))) + std::string(ARROW); }

  const Document* entries_;
  const std::string epoch_;
  const std::string universe_;
  TextMap<std::vector<std::string_view>> by_file_name_;  ///< in the order of the manifest
};

/// Which features of a manifest belong together: one walk over it for all families that were added before.
class FeatureFamilies {
 public:
  class Members {
   public:
    void add(std::string_view path) { paths_.emplace_back(path); }
    /// Sorted, and each only once in the life of the family: features of one family are each other's companions.
    [[nodiscard]] std::vector<std::string> take_all_but(std::string_view own_path) {
      std::vector<std::string> taken = std::exchange(paths_, {});
      std::ranges::sort(taken);
      const auto [begin, end] = std::equal_range(taken.begin(), taken.end(), own_path);
      paths_.assign(begin, end);
      taken.erase(begin, end);
      return taken;
    }

   private:
    std::vector<std::string> paths_;
  };

  /// The family of a feature's file, whose path is normalised; null where it belongs to none.
  Members* add(std::string_view path) {
    if (segment_count(path) < SCOPED_SEGMENTS || first_segment(path) != "features" || !path.ends_with(ARROW)) return nullptr;
    const std::optional<std::string> family = _feature_artifact_family_prefix(stem_of(path));
    return family ? &families_[*family].members_of(directory_of(path)) : nullptr;
  }

  void gather(const Value& files) {
    const Document* entries = files.if_document();
    if (entries == nullptr || families_.empty()) return;
    std::string buffer;
    for (std::size_t index = 0; index < entries->size(); ++index) {
      if (index % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
      const auto& [key, file_info] = entries->begin()[index];
      if (!file_info.is_document()) continue;
      const std::string_view path = normalised_or_empty(key, buffer);
      if (!path.ends_with(ARROW)) continue;
      const auto family = families_.find(first_two_fields(stem_of(path)));
      if (family != families_.end()) family->second.add(path);
    }
  }

 private:
  /// The folders in which one family is asked for, each with the slash behind it.
  class Folders {
   public:
    Members& members_of(std::string_view folder) {
      sizes_.insert(folder.size());
      return members_[std::string(folder)];
    }
    /// A folder holds what lies in its own folders too. There are few that are asked for, and may be very many on the way.
    void add(std::string_view path) {
      for (const std::size_t size : sizes_) {
        if (size >= path.size()) return;
        if (path[size - 1] != '/') continue;
        if (const auto members = members_.find(path.substr(0, size)); members != members_.end()) members->second.add(path);
      }
    }

   private:
    TextMap<Members> members_;
    std::set<std::size_t> sizes_;
  };

  static std::string_view directory_of(std::string_view path) { return path.substr(0, path.rfind('/') + 1); }
  static std::string_view stem_of(std::string_view path) {
    const std::string_view name = last_segment(path);
    return name.substr(0, name.size() - ARROW.size());
  }
  /// With the "__" behind each of them; empty for less.
  static std::string first_two_fields(std::string_view stem) {
    const std::size_t first = stem.find("__");
    const std::size_t second = first == std::string_view::npos ? first : stem.find("__", first + 2);
    return second == std::string_view::npos ? std::string() : std::string(stem.substr(0, second + 2));
  }

  TextMap<Folders> families_;  ///< by fields
};

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
  const std::string name(stripped_text(feature_name));
  return FeatureFiles(era_config, files, {name}, expression_type, named_universe).path_of(name);
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
  std::string buffer;
  const std::string own_path(normalised_or_empty(relative_path, buffer));
  FeatureFamilies families;
  FeatureFamilies::Members* const family = families.add(own_path);
  families.gather(files);
  return family ? family->take_all_but(own_path) : std::vector<std::string>();
}

std::vector<std::string> _manifest_feature_prefetch_relative_paths(const EraConfig& era_config, const Value& files,
                                                                   const Value& feature_name, const Value& expression_type,
                                                                   const Value& named_universe) {
  return feature_prefetch_relative_paths(era_config, files, {std::string(stripped_text(feature_name))}, expression_type, named_universe);
}

std::vector<std::string> feature_prefetch_relative_paths(const EraConfig& era_config, const Value& files,
                                                         const std::vector<std::string>& feature_names, const Value& expression_type,
                                                         const Value& named_universe) {
  struct Found {
    std::string path, normalised;
    FeatureFamilies::Members* family;
  };
  const FeatureFiles features(era_config, files, feature_names, expression_type, named_universe);
  FeatureFamilies families;
  std::vector<Found> found;
  std::string buffer;
  for (const std::string& name : feature_names) {
    check_interrupt();
    std::optional<std::string> path = features.path_of(name);
    if (!path) continue;
    std::string normalised(normalised_or_empty(Value(*path), buffer));
    FeatureFamilies::Members* const family = families.add(normalised);
    found.push_back({*std::move(path), std::move(normalised), family});
  }
  families.gather(files);

  std::vector<std::string> paths;
  StringSet seen;
  const auto add = [&](std::string path) {
    if (seen.insert(path).second) paths.push_back(std::move(path));
  };
  for (Found& own : found) {
    check_interrupt();
    add(std::move(own.path));
    if (own.family == nullptr) continue;
    for (std::string& companion : own.family->take_all_but(own.normalised)) add(std::move(companion));
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
