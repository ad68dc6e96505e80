// The vocabularies of the universes: fetched where the local ones will not do, or replaced one by one.
#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/log.hpp"
#include "sync/base/text/url.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

/// Removes a file that must not stay; a file system that refuses has no say.
void discard(Files& files, const Place& place) {
  try {
    files.unlink(place);
  } catch (const Error& error) {
    if (!error.is(error_class::OSError)) throw;
  }
}

/// Bringing one vocabulary of `server_manifest` into a directory.
class VocabularyDownload {
 public:
  VocabularyDownload(SyncManager& manager, NeighbourSet& neighbours, Manifest& server_manifest, const std::string& data_dir,
                     const std::string& file_path)
      : manager_(manager),
        neighbours_(neighbours),
        manifest_(server_manifest),
        data_dir_(data_dir),
        file_path_(file_path),
        universe_(_vocabulary_named_universe_from_path(neighbours, file_path).value_or("")),
        local_path_(_manifest_local_path(data_dir, file_path)) {}

  [[nodiscard]] const std::string& universe() const noexcept { return universe_; }
  [[nodiscard]] bool is_here() const { return path_exists(local_path_); }

  /// The local vocabulary, where it is valid and the manifest can be brought into line with it; else absent.
  [[nodiscard]] std::optional<Document> accept_local() {
    try {
      return accept(local_path_);
    } catch (const Error& error) {
      log_warning("Local vocabulary %s failed validation; re-downloading: %s", file_path_, error.text());
      return std::nullopt;
    }
  }

  /// Throws what the download throws, and what makes the bytes unacceptable; these are gone then.
  [[nodiscard]] Document fetch() {
    Document file_info = without_stamps(manifest_.entry(file_path_));
    if (manifest_.base_url().truthy()) file_info = file_info.with("_manifest_base_url", manifest_.base_url());
    SyncManager::DownloadOptions options;
    options.target_data_dir = data_dir_;
    options.retry_partial_transfer = false;
    options.retry_checksum_mismatch = false;
    try {
      SyncResult uncounted;
      manager_._download_file(neighbours_, file_path_, file_info, uncounted, options);
    } catch (const Error& error) {
      if (!error.is(error_class::IntegrityError) || !path_exists(local_path_ + ".tmp")) throw;
      accept_staged(error.text());
    }
    if (!is_here()) throw SyncError("Failed to download vocabulary: " + file_path_ + " was not written");
    try {
      return accept(local_path_);
    } catch (const Error&) {
      discard(files(), place());
      throw;
    }
  }

 private:
  /// The file at `path` as a vocabulary of this manifest, whose entry it may bring into line.
  Document accept(const std::string& path, const std::optional<std::string>& reason = std::nullopt) {
    const std::string bytes = read_file(path);
    Document vocabulary = _validate_vocabulary_bytes(neighbours_, bytes, manifest_integer(manifest_.era_number(), "era_number"), universe_);
    manager_._repair_vocabulary_manifest_entry(manifest_, file_path_, bytes, reason);
    return vocabulary;
  }

  /// The bytes may be good although they are not the ones that the manifest states.
  void accept_staged(const std::string& failure) {
    const Place target = place();
    const Place staged = target.beside(".tmp");
    try {
      (void)accept(staged.path(), failure);
      files().rename(staged, target);
    } catch (const Error&) {
      discard(files(), staged);
      throw;
    }
  }

  [[nodiscard]] Place place() const { return LocalFiles(data_dir_).place(file_path_); }
  [[nodiscard]] Files& files() const { return *manager_.seams().files; }

  SyncManager& manager_;
  NeighbourSet& neighbours_;
  Manifest& manifest_;
  const std::string& data_dir_;
  const std::string& file_path_;
  const std::string universe_;
  const std::string local_path_;
};

}  // namespace

SyncManager::LandedVocabularies SyncManager::land_vocabularies(NeighbourSet& neighbours, Manifest& server_manifest,
                                                               const std::string& data_dir) {
  const std::vector<std::string> paths = _vocabulary_manifest_paths(neighbours, server_manifest);
  if (paths.empty()) throw SyncError("manifest is missing per-universe vocabulary.json entries");
  std::vector<Member> vocabularies;
  bool fetched = false;
  for (const std::string& file_path : paths) {
    VocabularyDownload download(*this, neighbours, server_manifest, data_dir, file_path);
    std::optional<Document> vocabulary = download.is_here() ? download.accept_local() : std::nullopt;
    if (!vocabulary) {
      vocabulary = download.fetch();
      fetched = true;
    }
    vocabularies.push_back({download.universe(), *std::move(vocabulary)});
  }
  return {Document(std::move(vocabularies)), fetched};
}

bool SyncManager::_download_vocabulary(NeighbourSet& neighbours, Manifest& server_manifest,
                                       const std::optional<std::string>& target_data_dir) {
  LandedVocabularies landed = land_vocabularies(neighbours, server_manifest, directory_or_live(target_data_dir));
  if (!target_data_dir) _vocabulary.set(std::make_shared<const Document>(std::move(landed.by_universe)));
  return landed.fetched;
}

std::optional<Member> SyncManager::replace_vocabulary(NeighbourSet& neighbours, const std::string& file_path, const Document& file_info,
                                                      SyncResult& result) {
  const std::optional<std::string> universe = _vocabulary_named_universe_from_path(neighbours, file_path);
  if (!universe) return std::nullopt;
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) throw AttributeError("no manifest is committed: 'NoneType' object has no attribute 'era_number'");
  const Value base_url = first_base_url(file_info, manifest->base_url());
  const std::string server_url = _server_url.get();
  const std::string url = _manifest_file_url(neighbours.transport_security(), server_url, file_path, base_url);
  const HttpResult response = same_origin(server_url, url) ? _http_get(neighbours, url) : _http_get_public(neighbours, url);
  if (response.status != 200) _raise_download_http_status(neighbours.auth(), file_path, response.status);

  Document vocabulary =
      _validate_vocabulary_bytes(neighbours, response.body, manifest_integer(manifest->era_number(), "era_number"), *universe);
  const std::string actual_sha = _sha256(response.body);
  if (const Value& expected_sha = file_info.get("sha256"); expected_sha.truthy() && expected_sha != actual_sha) {
    throw integrity_error("Checksum failure for " + file_path + ": expected " + to_text(expected_sha) + ", got " + actual_sha, file_path);
  }
  const Value actual_size = response.body.size();
  if (const Value& stated = file_info.get("size_bytes"); !stated.is_null()) {
    const Value expected_size = manifest_integer(stated, "size_bytes of " + file_path);
    if (expected_size != actual_size) {
      throw integrity_error("Size failure for " + file_path + ": expected " + to_text(expected_size) + ", got " + to_text(actual_size),
                            file_path);
    }
  }

  const Place place = LocalFiles(_data_dir.get()).place(file_path);
  const std::optional<FileStat> landed = _atomic_write(*seams_.files, *seams_.clock, place, response.body);
  _hash_cache.remember_if_unchanged(file_path, place.path(), actual_sha, landed);
  result.bytes_downloaded += static_cast<std::int64_t>(response.body.size());
  result.vocabulary_downloaded = true;
  return Member{*universe, std::move(vocabulary)};
}

bool SyncManager::_download_validated_vocabulary_repair(NeighbourSet& neighbours, const std::string& file_path, const Document& file_info,
                                                        SyncResult& result) {
  const std::optional<Member> replaced = replace_vocabulary(neighbours, file_path, file_info, result);
  if (!replaced) return false;
  const std::shared_ptr<const Document> present = _vocabulary.get();
  _vocabulary.set(std::make_shared<const Document>((present ? *present : Document()).with(replaced->key, replaced->value)));
  return true;
}

}  // namespace brackenfen::sync
