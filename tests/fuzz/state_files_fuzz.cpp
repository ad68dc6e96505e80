// Whatever the library finds in the place of its own files reads as a state or as none, and what it writes of it reads as
// the same. Input: the content of each of them.
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/shuffle_seed.hpp"
#include "sync/lifecycle/told_era.hpp"
#include "sync/rotation/state_file.hpp"
#include "tests/fuzz/managers.hpp"

namespace {

std::string text_of(const Value& value) { return write_json(value, JsonForm::Canonical); }

void check_hash_cache() {
  const std::string path = directory() / SYNC_HASH_CACHE_FILENAME;
  HashCache cache(Files::real(), CLOCK, path);
  cache.load();
  const Document entries = cache.entries();
  require(text_of(HashCache::_load_hash_cache(path)) == text_of(entries), "both readers see the same entries");
  for (const Member& entry : entries) {
    const auto answer = cache._cached_local_sha(entry.key, directory() / SYNC_HASH_CACHE_FILENAME, std::string(64, 'a'));
    require(cache.knows(entry.key) && !answer, "an entry is known by its path, and no file taken for another");
  }
  cache.set_entries(entries);
  cache.set_dirty(true);
  cache._persist_hash_cache();
  require(!cache.dirty(), "what is written is no longer to be");
  require(text_of(HashCache::_load_hash_cache(path)) == text_of(entries), "what is written reads as it was");
  cache._remember_local_sha("own", path, std::string(64, 'b'));
  require(cache._cached_local_sha("own", path, std::string(64, 'b')).has_value(), "what is remembered is known");
}

void check_rotation_state() {
  const auto load = [] { return load_feature_rotation_state(neighbours(), directory().path()); };
  const auto state = unless_refused(load, error_class::FeatureRotationStateError);
  if (!state || !*state) return;
  for (const Text& path : (*state)->active_relative_paths())
    require(("/" + path.str() + "/").find("/../") == std::string::npos, "an active path stays inside");
  write_feature_rotation_state(neighbours(), Files::real(), CLOCK, directory().path(), *state);
  require(equal_states(*state, load()), "a state survives its file");
  const RotationStateRef kept = _drop_retired_unsupported_runtime_paths_from_state(*state, Document());
  const TextList paths = kept->active_relative_paths();
  static_cast<void>(_existing_rotation_paths(directory().path(), {paths.begin(), paths.end()}));
  static_cast<void>(_rotation_is_due(Files::real(), CLOCK, directory().path(), Document{{"rotation_frequency", "weekly"}}, kept));
}

void check_settings(const Value& parsed) {
  const RotationSettings& settings = RotationSettings::builtin();
  const auto load = [&] { return settings.model_dump(settings.load_rotation_settings(directory().path(), {}, 5)); };
  if (const auto dump = unless_refused(load, error_class::ValueError)) {
    directory().write(FEATURE_ROTATION_SETTINGS_FILENAME, text_of(*dump));
    require(load() == *dump && _rotation_frequency_seconds(*dump).has_value(), "settings survive their file");
  }
  require(_rotation_frequency_seconds(parsed).value_or(1) > 0, "a period has a length");
  static_cast<void>(_rotation_next_at(Files::real(), CLOCK, directory().path(), parsed));
}

void check_prefetched() {
  const Guarded<std::string> data_dir(directory().path());
  PrefetchedFeatures features(Files::real(), CLOCK, data_dir);
  const Document feature{{"kind", "feature"}};
  const Manifest manifest(neighbours(), Document{{"era_number", 7}, {"files", Document{{"features/a", feature}, {"features/b", feature}}}});
  const std::vector<std::string> kept = features._prefetched_feature_keep_paths(neighbours(), manifest);
  require(kept == features.keep_paths_in_era_of(neighbours(), manifest), "looking changes nothing");
  for (const std::string& path : kept) require(manifest.file(path).is_document(), "only features of the manifest are kept");
  features._remember_prefetched_feature_relative_paths(neighbours(), manifest, {"features/b"});
  const std::set<std::string> remembered = features._read_prefetched_feature_relative_paths(neighbours(), manifest);
  require(remembered.contains("features/b") && std::ranges::includes(remembered, kept), "what is remembered reads back");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = Input(data, size).rest();
  for (const char* name : {SYNC_HASH_CACHE_FILENAME, FEATURE_ROTATION_STATE_FILENAME, PREFETCHED_FEATURES_FILENAME, TOLD_ERA_FILENAME,
                           FEATURE_ROTATION_SETTINGS_FILENAME, ".consumer_count", "shuffle_seed.enc", "shuffle_seed.enc.meta.json"})
    directory().write(name, text);
  directory().write("manifest.json", R"({"era_number": 7, "version": 3, "files": {"features/a": {"kind": "feature"}}})");
  const auto open = [] { return open_manager(directory().path()); };
  if (const auto manager = unless_refused(open, error_class::FeatureRotationStateError)) {
    const std::int64_t count = (*manager)->consumer_count();
    require(count == 0 || (text.size() <= 64 && to_int64(text) == count), "a count is the file's or none");
    require((*manager)->get_manifest() != nullptr, "the manifest is read whatever lies beside it");
  }
  directory().write(FEATURE_ROTATION_STATE_FILENAME, text);  // which a construction may rewrite
  check_hash_cache();
  check_rotation_state();
  check_settings(unless_refused([&] { return parse_json(text); }, error_class::ValueError).value_or(Value()));
  check_prefetched();
  const auto told = era_told_before(directory().path(), 7);
  require(!told || told->is_null() || told->is_integer(), "a note tells of an era or of none");
  note_told_era(directory().path(), told.value_or(6));
  require(era_told_before(directory().path(), 7) == told.value_or(6), "a note survives its file");
  forget_told_era(Files::real(), directory().path());
  const auto validate_seed = [] { _validate_shuffle_seed_file(directory() / SHUFFLE_SEED_FILENAME, Value(7)); };
  static_cast<void>(unless_refused(validate_seed, error_class::SyncError));
  return 0;
}
