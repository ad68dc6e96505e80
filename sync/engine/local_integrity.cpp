// Does a local file match its manifest entry, and is the whole directory complete?
#include <algorithm>
#include <exception>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/threads/parallel.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/member_cursor.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/shuffle_seed.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/engine/expected_files.hpp"
#include "sync/engine/sync_failure.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/seen_file.hpp"

namespace brackenfen::sync {
bool SyncManager::_local_file_matches_manifest(const std::string& file_path, const std::string& local_path, const Document& file_info,
                                               bool cache_allowed) {
  std::optional<FileStat> stat;
  try {
    stat = seams_.files->stat(local_path);
  } catch (const Error& error) {
    if (!error.is(error_class::OSError)) throw;
    return false;
  }
  return stat && file_matches(
                     file_path, *stat, [&] { return local_path; }, file_info, cache_allowed);
}

bool SyncManager::file_matches(std::string_view file_path, const FileStat& stat, const std::function<std::string()>& local_path,
                               const Document& file_info, bool cache_allowed) {
  const Glance glance = glance_at(file_path, stat, file_info, cache_allowed ? &_hash_cache : nullptr);
  if (glance != Glance::MustBeRead) return glance == Glance::Matches;
  const std::string path = local_path();
  const std::optional<std::string> actual_sha = sha256_if_there(path);
  if (!actual_sha) return false;
  if (cache_allowed) _hash_cache.remember_if_unchanged(file_path, path, *actual_sha, stat);
  return file_info.get("sha256") == Value(*actual_sha);
}

bool SyncManager::files_match(const std::string& data_dir, const std::function<bool(ExpectedFiles&)>& collect) {
  ExpectedFiles files;
  bool all_listed = false;
  std::exception_ptr failure;
  try {
    all_listed = collect(files);
  } catch (const Error&) {
    failure = std::current_exception();  // a file collected before it decides first
  }
  const HashCache::View digests = _hash_cache.view();
  const std::size_t end = for_each_index(files.size(), [&]() -> IndexWork {
    return [&, local_files = std::make_shared<LocalFiles>(data_dir)](std::size_t index) {
      const ExpectedFile& file = files[index];
      const std::optional<FileStat> stat = local_files->stat(file.file_path);
      const bool cache_allowed = !is_vault_module(*file.file_info);
      if (stat && cache_allowed && glance_at(file.file_path, *stat, *file.file_info, &digests) == Glance::Matches) return true;
      const auto local_path = [&] { return local_files->local_path(file.file_path); };
      return stat && file_matches(file.file_path, *stat, local_path, *file.file_info, cache_allowed);
    };
  });
  if (end < files.size()) return false;
  if (failure) std::rethrow_exception(failure);
  return all_listed;
}

bool SyncManager::_local_manifest_files_complete(NeighbourSet& neighbours, Manifest& manifest, const RotationState* active_rotation_state) {
  const Value files = manifest.files();
  const Document* entries = files.if_document();
  const std::string data_dir = _data_dir.get();
  if (active_rotation_state) {
    const TextList active_paths = active_rotation_state->active_relative_paths();
    return files_match(data_dir, [&](ExpectedFiles& expected) {
      expected.reserve(active_paths.size());
      MemberCursor cursor(entries);
      return std::ranges::all_of(active_paths, [&](const Text& file_path) {
        const Value* entry = cursor.find(file_path);
        const Document* file_info = entry ? entry->if_document() : nullptr;
        if (file_info && !_manifest_file_is_sync_excluded(neighbours, *entry)) expected.add(file_path, file_info);
        return file_info != nullptr;
      });
    });
  }

  if (fails_with_sync_error([&] {
        _validate_shuffle_seed_file(join_path(data_dir, SHUFFLE_SEED_FILENAME), manifest_integer(manifest.era_number(), "era_number"));
        (void)_validate_manifest_vocabulary_files(neighbours, data_dir, manifest);
      }))
    return false;
  const bool all_match = !entries || files_match(data_dir, [&](ExpectedFiles& expected) {
    expected.reserve(entries->size());
    return std::ranges::all_of(*entries, [&](const Member& member) {
      if (vocabulary_universe_of(neighbours, member.key) || _manifest_file_is_sync_excluded(neighbours, member.value)) return true;
      const Document* file_info = member.value.if_document();
      if (file_info) expected.add(member.key, file_info);
      return file_info != nullptr;
    });
  });
  return all_match && !fails_with_sync_error([&] { _load_manifest_signals_index(data_dir, manifest); });
}

}  // namespace brackenfen::sync
