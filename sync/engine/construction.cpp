// What a manager is built from: its arguments, and what the directory still holds of an earlier life.
#include <malloc.h>

#include <functional>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/parallel.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/parsed_file.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t LARGEST_COUNT_BYTES = 64;
constexpr std::size_t MANY_FILES = 10'000;

void side_by_side(const std::function<void()>& first, const std::function<void()>& second) {
  const auto make_work = [&]() -> IndexWork {
    return [&](std::size_t index) {
      index == 0 ? first() : second();
      return true;
    };
  };
  static_cast<void>(for_each_index(2, make_work));
}

/// Of many files, what reading their documents took beside what is kept of them. The allocator would hold it for as long as
/// the process lives; the walk over what is free in it, a host's share too, is short beside the reading.
void give_back_free_memory(const Manifest& manifest) {
  const Value files = manifest.files();
  const Document* entries = files.if_document();
  if (entries != nullptr && entries->size() >= MANY_FILES) static_cast<void>(::malloc_trim(0));
}

}  // namespace

struct SyncManager::StoredDocuments {
  explicit StoredDocuments(const SyncManager& manager) {
    const std::string data_dir = manager._data_dir.get();
    const std::string rotation_state_path = feature_rotation_state_path(data_dir);
    rotation_state_seen = manager.seams_.files->stat(rotation_state_path);
    side_by_side([&] { hash_cache = HashCache::read(manager._hash_cache.path()); },
                 [&] { manifest = ParsedFile::read(join_path(data_dir, MANIFEST_FILENAME)); });
    // Nearly all paths of the others are the manifest's, and take no room of their own.
    const Document files = manifest.member("files");
    side_by_side([&] { hash_cache.share_paths(files); }, [&] { rotation_state = ParsedFile::read(rotation_state_path, files); });
  }

  HashCache::Stored hash_cache;
  ParsedFile manifest, rotation_state;
  std::optional<FileStat> rotation_state_seen;  ///< before it was read
};

SyncManager::SyncManager(Options options)
    : _data_dir(options.data_dir),
      _server_url(options.server_url),
      _poll_interval(options.poll_interval_s),
      _consumer_count_path(join_path(options.data_dir, ".consumer_count")),
      _flock_path(join_path(options.data_dir, FLOCK_FILENAME)),
      own_process_(options.seams),
      _hash_cache(*seams_.files, *seams_.clock, join_path(options.data_dir, SYNC_HASH_CACHE_FILENAME)),
      _prefetched_features(*seams_.files, *seams_.clock, _data_dir),
      _directory_lock(_data_dir, _flock_path, *seams_.clock) {
  const auto not_callable = options.get_token ? options.get_token->type_where_not_callable() : std::optional<std::string>("nothing");
  if (not_callable) throw TypeError("get_token must be callable, got " + *not_callable);
  if (options.server_url.empty()) throw ValueError("server_url must not be empty");
  const auto neighbours = seams_.neighbours->bind();
  neighbours->transport_security().validate_bearer_transport_url(options.server_url);
  if (!is_directory(options.data_dir)) {
    throw Error(error_class::FileNotFoundError, "data_dir does not exist: " + options.data_dir);
  }

  _get_token.set(std::move(options.get_token));
  runtime_freshness_guard.set(std::move(options.runtime_freshness_guard));
  {
    StoredDocuments stored(*this);
    _hash_cache.load(std::move(stored.hash_cache));
    restore_consumer_count();
    load_active_rotation_state(*neighbours, std::exchange(stored.rotation_state, {}), stored.rotation_state_seen);
    restore_manifest(*neighbours, stored.manifest);
  }
  restore_vocabulary(*neighbours);
  if (const auto manifest = _manifest.get()) give_back_free_memory(*manifest);
}

SyncManager::~SyncManager() {
  // Null after a stop. The poll thread keeps the manager alive, unless an interrupt of the host's own ended it.
  if (!in_own_process()) return;
  if (const auto watcher = _era_thread.get()) watcher->abandon();
}

void SyncManager::restore_consumer_count() {
  const std::string path = _consumer_count_path.get();
  if (!path_exists(path)) return;
  try {
    _consumer_count.store(to_int64(Value(strip(read_file(path, LARGEST_COUNT_BYTES)))));
  } catch (const Error& error) {
    log_warning("Failed to read consumer count: %s", error.text());
  }
}

void SyncManager::restore_manifest(NeighbourSet& neighbours, const ParsedFile& stored) {
  if (!stored.exists()) return;
  const std::string data_dir = _data_dir.get();
  try {
    const Value& loaded = stored.value();
    auto manifest = std::make_shared<Manifest>(neighbours, loaded);
    const Document cleaned = manifest->data();
    if (!Value(cleaned).same_as(loaded) && !(Value(cleaned) == loaded)) {
      _write_manifest_json(*seams_.files, *seams_.clock, data_dir, cleaned);
    }
    _manifest.set(manifest);
    _normalize_active_rotation_state_for_manifest(neighbours, *manifest);
    _load_manifest_signals_index(data_dir, *manifest);
  } catch (const Error& error) {
    log_warning("Failed to load manifest from disk: %s", error.text());
  }
}

void SyncManager::restore_vocabulary(NeighbourSet& neighbours) {
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) return;
  try {
    _vocabulary.set(std::make_shared<const Document>(_validate_manifest_vocabulary_files(neighbours, _data_dir.get(), *manifest)));
  } catch (const Error& error) {
    log_warning("Failed to load vocabulary from disk: %s", error.text());
  }
}

std::string SyncManager::directory_or_live(const std::optional<std::string>& target_data_dir) const {
  return target_data_dir && !target_data_dir->empty() ? *target_data_dir : _data_dir.get();
}

Value SyncManager::status() const {
  const std::shared_ptr<const Value> message = _status_message.get();
  return message ? *message : Value();
}

}  // namespace brackenfen::sync
