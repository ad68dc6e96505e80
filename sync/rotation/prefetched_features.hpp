// Features that were fetched on demand: a clean-up leaves them alone until the era ends.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/threads/mutex.hpp"
#include "sync/base/threads/snapshot.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

inline constexpr const char* PREFETCHED_FEATURES_FILENAME = ".prefetched-features.json";
inline constexpr int PREFETCHED_FEATURES_VERSION = 1;

[[nodiscard]] std::string _prefetched_features_state_path(std::string_view data_dir);
/// Those of `paths` that are texts and name files of kind "feature" in `files`, stripped and sorted.
[[nodiscard]] std::vector<std::string> _manifest_prefetched_feature_paths(NeighbourSet& neighbours, const Value& files,
                                                                          const std::vector<Value>& paths);

/// The paths of one era, in memory and in the file that processes share. Any thread; across processes the callers hold the
/// directory lock. The lock is held across the write of that one small file, so that writes keep their order.
class PrefetchedFeatures {
 public:
  PrefetchedFeatures(Files& files, Clock& clock, const Guarded<std::string>& data_dir)
      : files_(files), clock_(clock), data_dir_(data_dir) {}

  /// Adds the features among `relative_paths` to memory and file. Without any, nothing is touched. Throws os_error.
  void _remember_prefetched_feature_relative_paths(NeighbourSet& neighbours, const Manifest& manifest,
                                                   const std::vector<Value>& relative_paths) EXCLUDES(mutex_);
  /// What memory and file hold for the manifest's era, sorted, which memory enters.
  [[nodiscard]] std::vector<std::string> _prefetched_feature_keep_paths(NeighbourSet& neighbours, const Manifest& manifest)
      EXCLUDES(mutex_);
  /// The same without entering the era: for who only asks.
  [[nodiscard]] std::vector<std::string> keep_paths_in_era_of(NeighbourSet& neighbours, const Manifest& manifest) const EXCLUDES(mutex_);
  /// What the file holds for the manifest's era and the manifest still lists; empty for a file that is unusable.
  [[nodiscard]] std::set<std::string> _read_prefetched_feature_relative_paths(NeighbourSet& neighbours, const Manifest& manifest) const;
  /// Throws os_error.
  void _write_prefetched_feature_relative_paths(const Value& era_number, const std::set<std::string>& relative_paths) const;

  [[nodiscard]] Value era_id() const EXCLUDES(mutex_);
  void set_era_id(Value era_id) EXCLUDES(mutex_);
  [[nodiscard]] std::set<std::string> relative_paths() const EXCLUDES(mutex_);
  void set_relative_paths(std::set<std::string> relative_paths) EXCLUDES(mutex_);

 private:
  /// Paths of another era go.
  void enter_era(const Value& era_id) REQUIRES(mutex_);

  Files& files_;
  Clock& clock_;
  const Guarded<std::string>& data_dir_;

  mutable Mutex mutex_;
  Value era_id_ GUARDED_BY(mutex_);
  std::set<std::string> relative_paths_ GUARDED_BY(mutex_);
};

}  // namespace brackenfen::sync
