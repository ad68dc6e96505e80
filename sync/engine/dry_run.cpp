// What a pass would do, found out by its own steps up to the first that changes something.
#include <algorithm>
#include <utility>

#include "sync/base/text/keyed_hash.hpp"
#include "sync/documents/departed_files.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/documents/shown_files.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/engine/pass.hpp"
#include "sync/rotation/cleanup.hpp"

namespace brackenfen::sync {
SyncPlan SyncManager::plan() {
  require_own_process();
  require_outside_own_pass();
  return run_operation(activity_, operation::PLAN, phase::WAITING, [this] {
    WorkLock one_pass(_sync_lock);
    return Pass(*this).plan();
  });
}

SyncPlan SyncManager::Pass::plan() {
  is_dry_run_ = true;
  Operation::enter_phase(phase::MANIFEST);
  manager_.adopt_stored_rotation(*neighbours_);
  fetch_manifest();
  OwnFiles(data_dir_).refuse_in(server_->files());
  Operation::enter_phase(phase::COMPARING);
  plan_rotation();
  collect_downloads();

  SyncPlan plan;
  plan.era_number = manifest_integer(server_->era_number(), "era_number");
  plan.version = manifest_integer(server_->version(), "version");
  plan.is_transition = local_ && local_->era_number() != server_->era_number();
  plan.keep = kept_;
  plan.remove = files_to_remove(plan.is_transition);
  plan.free_bytes = free_bytes_;
  const auto fetch = [&plan](const Member& member) {
    const std::int64_t size_bytes = shown_size(*member.value.if_document());
    plan.fetch.push_back({member.key, size_bytes});
    plan.fetch_bytes = sum_of_sizes(plan.fetch_bytes, size_bytes);
  };
  std::ranges::for_each(files_to_download_, fetch);
  std::ranges::for_each(documents_to_fetch(), fetch);
  return plan;
}

std::vector<Member> SyncManager::Pass::documents_to_fetch() {
  LocalFiles local_files(data_dir_);
  std::vector<Member> wanted;
  for (const Text& file_path : rotation_.plan.selection.active_relative_paths) {
    if (file_path.view() != SIGNALS_INDEX_RELATIVE_PATH && !vocabulary_universe_of(*neighbours_, file_path)) continue;
    const Value entry = server_->file(file_path);
    if (_manifest_file_is_sync_excluded(*neighbours_, entry)) continue;
    const std::optional<FileStat> stat = local_files.stat(file_path);
    const auto local_path = [&] { return local_files.local_path(file_path); };
    if (!stat || !manager_.file_matches(file_path, *stat, local_path, *entry.if_document(), true)) wanted.push_back({file_path, entry});
  }
  return wanted;
}

std::vector<std::string> SyncManager::Pass::files_to_remove(bool is_transition) {
  std::vector<std::string> doomed;
  const TextList& active_paths = rotation_.plan.selection.active_relative_paths;
  const TextSet keep = manager_.paths_to_keep(*neighbours_, *server_, active_paths,
                                              manager_._prefetched_features.keep_paths_in_era_of(*neighbours_, *server_));
  find_files_not_kept(data_dir_, keep, [&](const Place&, std::string_view relative_path) {
    if (!relative_path.ends_with(".tmp")) doomed.emplace_back(relative_path);
  });
  if (is_transition) {  // which takes what has departed from all other folders too
    LocalFiles local_files(data_dir_);
    StringSet live_paths;
    for (const Text& file_path : active_paths) live_paths.insert(local_files.local_path(file_path));
    for (DepartedFile& departed : departed_files(data_dir_, local_->files(), server_->files(), live_paths)) {
      const std::optional<FileStat> stat = local_files.stat(departed.file_path);
      if (stat && !stat->is_directory) doomed.push_back(std::move(departed.file_path));
    }
  }
  std::ranges::sort(doomed);
  doomed.erase(std::unique(doomed.begin(), doomed.end()), doomed.end());
  return doomed;
}

}  // namespace brackenfen::sync
