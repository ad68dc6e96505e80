#include "sync/rotation/prefetched_features.hpp"

#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

/// The file's members; empty where it is missing, unreadable or no JSON object.
Document members_of(const std::string& path) {
  if (!path_exists(path)) return {};
  try {
    const Value payload = parse_json(read_file(path));
    const Document* members = payload.if_document();
    return members == nullptr ? Document() : *members;
  } catch (const Error& error) {
    const bool unusable = error.is(error_class::OSError) || error.is(error_class::ValueError) || error.is(error_class::TypeError);
    if (!unusable) throw;
    return {};
  }
}

/// The manifest's era, as the file knows it.
struct StoredEra {
  Value id;
  std::set<std::string> relative_paths;
};
StoredEra stored_era(const PrefetchedFeatures& features, NeighbourSet& neighbours, const Manifest& manifest) {
  return {_manifest_era_id_or_none(manifest.era_number()), features._read_prefetched_feature_relative_paths(neighbours, manifest)};
}

}  // namespace

std::string _prefetched_features_state_path(std::string_view data_dir) { return join_path(data_dir, PREFETCHED_FEATURES_FILENAME); }

std::vector<std::string> _manifest_prefetched_feature_paths(NeighbourSet& neighbours, const Value& files, const std::vector<Value>& paths) {
  const Document* entries = files.if_document();
  std::set<std::string> kept;
  for (const Value& path : paths) {
    const std::string_view name = stripped_text(path);
    const Value* entry = name.empty() || entries == nullptr ? nullptr : entries->find(name);
    if (entry == nullptr || !entry->is_document()) continue;
    if (neighbours.artifact_rotation().manifest_file_kind(*entry) == FEATURE_KIND) kept.emplace(name);
  }
  return {kept.begin(), kept.end()};
}

void PrefetchedFeatures::_remember_prefetched_feature_relative_paths(NeighbourSet& neighbours, const Manifest& manifest,
                                                                     const std::vector<Value>& relative_paths) {
  const std::vector<std::string> paths = _manifest_prefetched_feature_paths(neighbours, manifest.files(), relative_paths);
  if (paths.empty()) return;
  StoredEra stored = stored_era(*this, neighbours, manifest);
  MutexLock lock(mutex_);
  enter_era(stored.id);
  relative_paths_.merge(stored.relative_paths);
  relative_paths_.insert(paths.begin(), paths.end());
  _write_prefetched_feature_relative_paths(stored.id, relative_paths_);
}

std::vector<std::string> PrefetchedFeatures::_prefetched_feature_keep_paths(NeighbourSet& neighbours, const Manifest& manifest) {
  StoredEra stored = stored_era(*this, neighbours, manifest);
  MutexLock lock(mutex_);
  enter_era(stored.id);
  relative_paths_.merge(stored.relative_paths);
  return {relative_paths_.begin(), relative_paths_.end()};
}

std::vector<std::string> PrefetchedFeatures::keep_paths_in_era_of(NeighbourSet& neighbours, const Manifest& manifest) const {
  auto [id, kept] = stored_era(*this, neighbours, manifest);
  MutexLock lock(mutex_);
  if (era_id_ == id) kept.insert(relative_paths_.begin(), relative_paths_.end());
  return {kept.begin(), kept.end()};
}

std::set<std::string> PrefetchedFeatures::_read_prefetched_feature_relative_paths(NeighbourSet& neighbours,
                                                                                  const Manifest& manifest) const {
  const Document members = members_of(_prefetched_features_state_path(data_dir_.get()));
  const bool fits = members.get("schema_version") == Value(PREFETCHED_FEATURES_VERSION) &&
                    members.get("era_number") == _manifest_era_id_or_none(manifest.era_number());
  if (!fits) return {};
  const List* listed = members.get("paths").if_list();
  if (listed == nullptr) return {};
  const std::vector<std::string> paths =
      _manifest_prefetched_feature_paths(neighbours, manifest.files(), std::vector<Value>(listed->begin(), listed->end()));
  return {paths.begin(), paths.end()};
}

void PrefetchedFeatures::_write_prefetched_feature_relative_paths(const Value& era_number,
                                                                  const std::set<std::string>& relative_paths) const {
  std::vector<Value> paths;
  for (const std::string& path : relative_paths) {
    if (!path.empty()) paths.emplace_back(path);
  }
  const Document payload{{"schema_version", PREFETCHED_FEATURES_VERSION}, {"era_number", era_number}, {"paths", List(std::move(paths))}};
  _atomic_write(files_, clock_, _prefetched_features_state_path(data_dir_.get()), write_json(Value(payload), JsonForm::SortedKeys));
}

Value PrefetchedFeatures::era_id() const {
  MutexLock lock(mutex_);
  return era_id_;
}

void PrefetchedFeatures::set_era_id(Value era_id) {
  MutexLock lock(mutex_);
  std::swap(era_id_, era_id);
}

std::set<std::string> PrefetchedFeatures::relative_paths() const {
  MutexLock lock(mutex_);
  return relative_paths_;
}

void PrefetchedFeatures::set_relative_paths(std::set<std::string> relative_paths) {
  MutexLock lock(mutex_);
  std::swap(relative_paths_, relative_paths);
}

void PrefetchedFeatures::enter_era(const Value& era_id) {
  if (era_id_ == era_id) return;
  relative_paths_.clear();
  era_id_ = era_id;
}

}  // namespace brackenfen::sync
