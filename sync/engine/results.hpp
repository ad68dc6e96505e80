// What the operations return.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sync/base/values/text_list.hpp"
#include "sync/base/values/value.hpp"
#include "sync/transport/activity.hpp"

namespace brackenfen::sync {

/// The result of a sync operation. Numbers that come from a document are carried as they stand there.
struct SyncResult {
  std::int64_t features_downloaded = 0;        ///< files of kind "feature" that landed
  std::int64_t useful_signals_downloaded = 0;  ///< useful-signal groups touched by the download set
  std::int64_t bytes_downloaded = 0;           ///< whole size of every file that landed, resumed bytes included
  Value era_number = 0;
  Value t_signal_is = 0;  ///< from vocabulary metadata, as are the two below
  Value t_strategy_is = 0;
  Value n_instruments = 0;
  std::int64_t n_features = 0;        ///< manifest files of kind "feature"
  std::int64_t n_useful_signals = 0;  ///< useful-signal groups in the manifest
  std::int64_t n_found_strategies = 0;
  Value pnl_column_count = 0;  ///< from the manifest
  bool vocabulary_downloaded = false;
  bool shuffle_seed_downloaded = false;
  TextList active_relative_paths;
  TextList skipped_relative_paths;
  TextList mandatory_relative_paths;
  std::vector<std::string> found_pnl_paths_downloaded;  ///< local paths of landed found-PnL files
  Value rotation_seed;                                  ///< null where no rotation took part
  Value feature_budget_bytes;                           ///< null likewise

  bool operator==(const SyncResult&) const = default;
};

/// What a pass would do, or the transition where the server is in another era.
struct SyncPlan {
  struct File {
    Text relative_path;
    std::int64_t size_bytes = 0;  ///< as the manifest states it; 0 where it states none
  };

  Value era_number;  ///< of the server's manifest, as is the version
  Value version;
  bool is_transition = false;
  std::vector<File> fetch;
  std::int64_t fetch_bytes = 0;
  std::vector<Text> keep;           ///< although the new manifest of the same era states other bytes: the pass after fetches them
  std::vector<std::string> remove;  ///< by relative path; no staging files
  std::int64_t free_bytes = 0;

  [[nodiscard]] bool fits() const noexcept { return fetch_bytes <= free_bytes; }
};

/// How a manager and its directory are.
struct Health {
  bool running = false;  ///< between start or acquire and the stop
  bool in_transition = false;
  Value era_number;  ///< of the last commit, as is the version; null where that holds no integer
  Value version;
  Standing standing;
  std::optional<double> last_good_age_s;
  std::int64_t consumers = 0;
};

/// The result of an audit of the local files.
struct VerifyResult {
  bool valid = true;
  std::vector<std::string> corrupted_files;
  std::vector<std::string> missing_files;

  bool operator==(const VerifyResult&) const = default;
};

}  // namespace brackenfen::sync
