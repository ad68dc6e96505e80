// The active rotation state, in memory and in its file, and every change of it.
#include <algorithm>
#include <span>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/neighbours/rotation_state.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

bool same_generation(const RotationState& left, const RotationState& right) {
  return left.generation() == right.generation() && left.seed() == right.seed();
}

/// Whether `next` belongs to the rotation of `previous`, as far as the built-in states tell.
bool same_rotation(const RotationStateRef& previous, const RotationStateRef& next) {
  const bool both_built_in = dynamic_cast<const BuiltinRotationState*>(previous.get()) != nullptr &&
                             dynamic_cast<const BuiltinRotationState*>(next.get()) != nullptr;
  return both_built_in && same_generation(*previous, *next);
}

/// Whether what a process stored takes the place of what this one holds: a later rotation, or another state of the same.
bool takes_over(const RotationState& stored, const RotationStateRef& active) {
  return !active || same_generation(stored, *active) ||
         compare_integers(to_integer(stored.generation()), to_integer(active->generation())) > 0;
}

bool lists_all(std::span<const Text> paths, std::span<const Text> wanted) {
  const TextSet set = set_of(paths);
  return std::ranges::all_of(wanted, [&](const Text& path) { return contains(set, path); });
}

bool same_file(const std::optional<FileStat>& left, const std::optional<FileStat>& right) {
  return left && right && left->inode == right->inode && left->ctime_ns == right->ctime_ns && left->size_bytes == right->size_bytes;
}

/// Counts how often a change is made because others overtook it.
class Tries {
 public:
  void begin_next() {
    check_interrupt();
    // Only a module of the host that changes the state whenever it is asked about it can come this far.
    if (++count_ > MOST) throw StateError("the rotation state changes faster than it can be stored");
  }

 private:
  static constexpr int MOST = 100;
  int count_ = 0;
};

/// `first`, then what of `second` it lacks; each path once.
TextList united(std::span<const Text> first, std::span<const Text> second) {
  std::vector<Text> all;
  TextSet seen;
  for (const std::span<const Text> paths : {first, second}) {
    for (const Text& path : paths) {
      if (seen.insert(path).second) all.push_back(path);
    }
  }
  return all;
}

}  // namespace

bool SyncManager::commit_rotation_state(NeighbourSet& neighbours, std::uint64_t changes, const RotationStateRef& previous,
                                        const RotationStateRef& next, const std::vector<Text>& added) {
  _directory_lock.require_directory();
  const std::string path = feature_rotation_state_path(_data_dir.get());
  const std::string document = rotation_state_document(neighbours, next);
  const bool keeps_time = same_rotation(previous, next);
  RotationStateRef replaced;  // an object of the host, which goes after the lock
  std::string lost_time;
  const bool committed = rotation_state_changes_.commit(changes, added, [&] {
    const std::optional<FileStat> before = seams_.files->stat(path);
    _atomic_write(*seams_.files, *seams_.clock, path, document, Flush::Yes);
    replaced = _active_rotation_state.exchange(next);
    rotation_state_seen_.set(std::nullopt);
    try {
      // Other paths within one rotation: the next one stays where it was.
      if (before && keeps_time) seams_.files->set_mtime(path, before->mtime_ns);
      rotation_state_seen_.set(seams_.files->stat(path));
    } catch (const Error& error) {
      lost_time = error.text();
    }
  });
  if (!lost_time.empty()) log_debug("the time of the last rotation could not be kept: %s", lost_time);
  return committed;
}

RotationStateRef SyncManager::with_added_paths(const RotationStateRef& state) const {
  const std::vector<Text> added = rotation_state_changes_.added();
  if (added.empty()) return state;
  const TextList paths = state->active_relative_paths();
  TextList all = united(paths, added);
  return all == paths ? state : state->with_active_relative_paths(std::move(all));
}

RotationStateRef SyncManager::store_rotation_state(NeighbourSet& neighbours, const RotationStateRef& promoted) {
  for (Tries tries;;) {
    tries.begin_next();
    const std::uint64_t changes = rotation_state_changes_.count();
    const RotationStateRef active = _active_rotation_state.get();
    RotationStateRef next = with_added_paths(promoted);
    if (equal_states(next, active) && path_exists(feature_rotation_state_path(_data_dir.get()))) return next;
    if (commit_rotation_state(neighbours, changes, active, next)) return next;
  }
}

void SyncManager::_write_promoted_rotation_state(NeighbourSet& neighbours, const RotationStateRef& promoted) {
  if (promoted) static_cast<void>(store_rotation_state(neighbours, promoted));
}

RotationStateRef SyncManager::_normalize_active_rotation_state_for_manifest(NeighbourSet& neighbours, const Manifest& manifest) {
  for (Tries tries;;) {
    tries.begin_next();
    const std::uint64_t changes = rotation_state_changes_.count();
    RotationStateRef active = _active_rotation_state.get();
    RotationStateRef cleaned = _drop_retired_unsupported_runtime_paths_from_state(active, manifest.files());
    if (equal_states(cleaned, active)) return active;
    if (commit_rotation_state(neighbours, changes, active, cleaned)) return cleaned;
  }
}

void SyncManager::load_active_rotation_state(NeighbourSet& neighbours, const ParsedFile& stored, const std::optional<FileStat>& found) {
  _active_rotation_state.set(feature_rotation_state_in(neighbours, stored, feature_rotation_state_path(_data_dir.get())));
  rotation_state_seen_.set(found);
}

void SyncManager::adopt_stored_rotation(NeighbourSet& neighbours) {
  const std::string data_dir = _data_dir.get();
  for (Tries tries;;) {
    tries.begin_next();
    const std::uint64_t changes = rotation_state_changes_.count();
    const std::optional<FileStat> found = seams_.files->stat(feature_rotation_state_path(data_dir));
    if (!found || same_file(rotation_state_seen_.get(), found)) return;
    RotationStateRef stored;
    try {
      stored = load_feature_rotation_state(neighbours, data_dir);
      if (stored && !takes_over(*stored, _active_rotation_state.get())) stored = nullptr;
    } catch (const Error& error) {
      log_warning("the rotation state on disk is unusable, the one in memory goes on: %s", error.text());
    }
    RotationStateRef replaced;
    const bool committed = rotation_state_changes_.commit(changes, {}, [&] {
      if (stored) replaced = _active_rotation_state.exchange(stored);
      rotation_state_seen_.set(found);
    });
    if (committed) return;
  }
}

TextList SyncManager::add_active_feature_paths(const std::vector<Text>& relative_paths) {
  require_own_process();
  if (relative_paths.empty()) return {};
  std::optional<DirectoryLock::Hold> unit_of_work;
  if (!_directory_lock.is_held_around_this_call()) unit_of_work.emplace(_directory_lock);
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  TextList active_paths;
  for (Tries tries;;) {
    tries.begin_next();
    const std::uint64_t changes = rotation_state_changes_.count();
    const RotationStateRef state = load_feature_rotation_state(*neighbours, _data_dir.get());
    if (!state) break;
    const TextList old_paths = state->active_relative_paths();
    active_paths = united(old_paths, relative_paths);
    // What is active already is not written, but a plan in the making may be about to drop it, unless it was told before.
    if (active_paths == old_paths && lists_all(rotation_state_changes_.added(), relative_paths)) break;
    const bool committed =
        active_paths == old_paths
            ? rotation_state_changes_.commit(changes, relative_paths, [] {})
            : commit_rotation_state(*neighbours, changes, state, state->with_active_relative_paths(active_paths), relative_paths);
    if (committed) break;
  }
  if (unit_of_work) unit_of_work->release();
  return active_paths;
}

}  // namespace brackenfen::sync
