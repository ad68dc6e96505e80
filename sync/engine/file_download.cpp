// One file, from its URL to its place: streamed, resumed, checked, moved.
#include <algorithm>
#include <cerrno>
#include <future>
#include <limits>
#include <memory>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/engine/staging_file.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/backoff.hpp"
#include "sync/transport/events.hpp"
#include "sync/transport/request_environment.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync {
namespace {

std::int64_t stated_size(const Document& file_info, const std::string& file_path) {
  const Value* stated = file_info.find("size_bytes");
  if (!stated) return 0;
  const Value size = manifest_integer(*stated, "size_bytes of " + file_path);
  if (compare_integers(size, 0) <= 0) return 0;  // says nothing, and may have any number of digits
  if (const auto bytes = size.if_integer()) return *bytes;
  throw ManifestError("manifest size_bytes of " + file_path + ": no file has " + to_text(size) + " bytes");
}

bool is_document(NeighbourSet& neighbours, const std::string& file_path) {
  return file_path == FUNCTIONS_RELATIVE_PATH || file_path == SIGNALS_INDEX_RELATIVE_PATH ||
         (file_path.ends_with(".json") && _vocabulary_named_universe_from_path(neighbours, Value(file_path)));
}

/// One call of _download_file. One thread.
class FileDownload {
 public:
  FileDownload(SyncManager& manager, NeighbourSet& neighbours, const std::string& file_path, const Document& file_info, SyncResult& result,
               const SyncManager::DownloadOptions& options, LocalFiles& local_files);

  void run();

 private:
  /// False where an attempt must be followed by another.
  [[nodiscard]] bool attempt();
  void open_staging();
  /// What an attempt goes by, its first request included, in one visit to the host.
  void read_settings();
  void transfer();
  void transfer_chunks();
  void resume_to_end();
  void fetch_whole();
  [[nodiscard]] HttpResult request(std::int64_t range_start, std::int64_t range_end);
  [[nodiscard]] RequestStart start_request() const;
  [[nodiscard]] std::uint64_t whole_limit() const;
  /// False where the bytes that came are too few and are to be resumed.
  [[nodiscard]] bool is_long_enough();
  [[nodiscard]] bool may_retry(const Error& error) const;
  [[nodiscard]] bool checksum_fits(const std::string& actual_sha);
  /// Whether one more transfer may bring other bytes under the same manifest. Throws IntegrityError where none may.
  void require_repair_left(const std::string& actual_sha);
  void land(const std::string& actual_sha);

  void announce_wait(std::string_view reason);
  [[nodiscard]] bool superseded() { return manager_._download_manifest_superseded(neighbours_, file_info_); }
  void log_event(std::string_view event_type, std::string_view reason, const Document& fields) const;
  /// What every report about this file's generation says, with the range where one was asked for.
  [[nodiscard]] Document generation_fields(std::optional<std::int64_t> range_start = {}, std::optional<std::int64_t> range_end = {}) const;
  /// The file on the server ends before the bytes that are here, or before those that the manifest promises.
  [[noreturn]] void reset_after_416(const Document& fields);
  [[noreturn]] void leave_superseded(std::string_view reason, const Document& fields);

  SyncManager& manager_;
  NeighbourSet& neighbours_;
  const Seams& seams_;
  const std::string file_path_;
  const Document& file_info_;
  SyncResult& result_;
  const SyncManager::DownloadOptions& options_;

  const std::string live_data_dir_;
  const std::string expected_sha_;
  const std::int64_t expected_size_;
  const std::string kind_;
  // Read once: address and credentials must never follow from two different manifests.
  const std::string server_url_;
  const Value base_url_;
  const std::string url_;
  const bool is_public_;
  const bool is_document_;
  LocalFiles& local_files_;
  Place place_;  ///< looked up anew for each further attempt: a folder may have become a link meanwhile

  std::shared_ptr<void> entered_;          ///< the back-off context, where it is not the thread's own
  std::future<RequestStart> first_start_;  ///< of the attempt's first request; empty once that was made

  int attempt_ = 0;         ///< counts retries of every kind
  bool was_reset_ = false;  ///< after a 416
  bool exhausted_ = false;  ///< no repair is left: what is thrown is final
  double wait_seconds_ = 0;
  std::int64_t chunk_bytes_ = 0;
  std::optional<std::int64_t> max_unchanged_checksum_repairs_;  ///< as the first attempt found it
  StagingFile staging_;
  DownloadShown shown_;
  ServerWaitShown wait_shown_;
};

Value base_url_for(const Document& file_info, const SyncManager& manager) {
  const std::shared_ptr<Manifest> committed = manager._manifest.get();
  return first_base_url(file_info, committed ? committed->base_url() : Value());
}

FileDownload::FileDownload(SyncManager& manager, NeighbourSet& neighbours, const std::string& file_path, const Document& file_info,
                           SyncResult& result, const SyncManager::DownloadOptions& options, LocalFiles& local_files)
    : manager_(manager),
      neighbours_(neighbours),
      seams_(manager.seams()),
      file_path_(file_path),
      file_info_(file_info),
      result_(result),
      options_(options),
      live_data_dir_(manager._data_dir.get()),
      expected_sha_(text_or_empty(file_info.get("sha256"))),
      expected_size_(stated_size(file_info, file_path)),
      kind_(text_or_empty(file_info.get("kind"))),
      server_url_(manager._server_url.get()),
      base_url_(base_url_for(file_info, manager)),
      url_(_manifest_file_url(neighbours.transport_security(), server_url_, Value(file_path), base_url_)),
      is_public_(is_public_download(server_url_, base_url_, url_)),
      is_document_(is_document(neighbours, file_path)),
      local_files_(local_files),
      place_(local_files.next_place(file_path)),
      staging_(place_.beside(".tmp"), *seams_.clock),
      shown_(file_path_, expected_size_, staging_.bytes()) {}

void FileDownload::run() {
  while (!attempt()) ++attempt_;
}

bool FileDownload::attempt() {
  wait_shown_.pause();
  open_staging();
  read_settings();
  std::string_view wait_reason;
  try {
    transfer();
    if (!is_long_enough()) wait_reason = "partial_transfer";
  } catch (const Error& error) {
    if (!may_retry(error)) throw;
    wait_reason = error.error_class().name();
  }
  if (!wait_reason.empty()) {
    announce_wait(wait_reason);
    _sleep_for_sync_backoff(seams_, static_cast<float>(wait_seconds_));
    return false;
  }
  const std::string actual_sha = staging_.hex_digest();
  if (!checksum_fits(actual_sha)) return false;
  land(actual_sha);
  return true;
}

void FileDownload::open_staging() {
  if (attempt_ > 0) {
    place_ = local_files_.place(file_path_);
    staging_.set_place(place_.beside(".tmp"));
  }
  staging_.open(!options_.is_abandoned || !options_.is_abandoned());
  if (staging_.size_bytes() > 0)
    _log_sync_event("range_resume", file_path_, 1, "partial_tmp", Document{{"bytes_existing", staging_.size_bytes()}});
}

void FileDownload::read_settings() {
  constexpr const char* VARIABLES[] = {"BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", "BRACKENFEN_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS"};
  // A staging file that is whole may need no request.
  const bool is_whole = staging_.size_bytes() > 0 && staging_.size_bytes() >= expected_size_;
  std::packaged_task<RequestStart()> start([this] { return start_request(); });  // what it throws, the request throws
  std::optional<EnvironmentCopy> variables;
  seams_.environment->together([&] {
    if (options_.backoff_context && !entered_) entered_ = _sync_backoff_module(seams_)->enter_context(*options_.backoff_context);
    wait_seconds_ = _backoff_delay_seconds(seams_, attempt_);
    variables.emplace(*seams_.environment, VARIABLES);
    if (!is_whole) start();
  });
  if (!is_whole) first_start_ = start.get_future();
  chunk_bytes_ = _sync_http_chunk_bytes(*variables);
  if (!max_unchanged_checksum_repairs_) max_unchanged_checksum_repairs_ = _sync_max_unchanged_checksum_repairs(*variables);
}

RequestStart FileDownload::start_request() const {
  RequestStart start = is_public_ ? RequestStart{{}, request_environment(*seams_.environment)} : manager_.start_request();
  start.connections = options_.connections;
  return start;
}

void FileDownload::transfer() {
  if (expected_size_ > chunk_bytes_) {
    transfer_chunks();
  } else if (staging_.size_bytes() > 0) {
    resume_to_end();
  } else {
    fetch_whole();
  }
}

void FileDownload::transfer_chunks() {
  while (staging_.size_bytes() < expected_size_) {
    const std::int64_t start = staging_.size_bytes();
    const std::int64_t size = std::min(expected_size_ - start, chunk_bytes_);
    const std::int64_t end = start + size - 1;
    staging_.expect(static_cast<std::uint64_t>(size) + BODY_SLACK_BYTES, start == 0 ? std::optional(whole_limit()) : std::nullopt);
    const HttpResult response = request(start, end);

    if (response.status == 206) {
      if (staging_.received_bytes() > 0) continue;
      if (superseded()) leave_superseded("empty_range", generation_fields(start, end));
      throw SyncError("Download failed for " + file_path_ + ": empty range " + std::to_string(start) + "-" + std::to_string(end));
    }
    if (response.status == 200 && start == 0) {  // the server ignored the range and sent the whole file
      staging_.keep_whole();
      return;
    }
    if (response.status == 416 && start > 0) reset_after_416(generation_fields(start, end));
    if (superseded()) {
      leave_superseded("http_" + std::to_string(response.status), generation_fields(start, end).with("status", response.status));
    }
    _raise_download_http_status(neighbours_.auth(), file_path_, response.status);
  }
}

void FileDownload::resume_to_end() {
  const std::int64_t start = staging_.size_bytes();
  staging_.expect(whole_limit(), whole_limit());
  const HttpResult response = request(start, -1);
  if (response.status == 206) return;
  if (response.status == 200) {
    staging_.keep_whole();
    return;
  }
  if (response.status == 416) reset_after_416(generation_fields(start));
  _raise_download_http_status(neighbours_.auth(), file_path_, response.status);
}

void FileDownload::fetch_whole() {
  staging_.expect(std::nullopt, whole_limit());
  const HttpResult response = request(0, -1);
  if (response.status != 200) _raise_download_http_status(neighbours_.auth(), file_path_, response.status);
}

/// Of documents the stated size may lag behind what is stored.
std::uint64_t FileDownload::whole_limit() const {
  if (is_document_) return MAX_DOCUMENT_BYTES;
  if (expected_size_ <= 0) return std::numeric_limits<std::uint64_t>::max();
  return static_cast<std::uint64_t>(expected_size_) + BODY_SLACK_BYTES;
}

HttpResult FileDownload::request(std::int64_t range_start, std::int64_t range_end) {
  try {
    const RequestStart start = first_start_.valid() ? first_start_.get() : start_request();
    HttpResult response = is_public_ ? _http_get_public(seams_, neighbours_, url_, start, range_start, range_end, &staging_)
                                     : _http_get(seams_, neighbours_, url_, start, range_start, range_end, &staging_);
    staging_.flush();
    return response;
  } catch (const Error&) {
    staging_.roll_back();
    throw;
  }
}

bool FileDownload::is_long_enough() {
  const std::int64_t total_written = staging_.size_bytes();
  if (expected_size_ <= 0 || total_written >= expected_size_) return true;
  if (superseded()) leave_superseded("partial_transfer", generation_fields());
  if (options_.retry_partial_transfer) return false;
  throw integrity_error("Incomplete download for " + file_path_ + ": got " + std::to_string(total_written) + " bytes, expected " +
                            std::to_string(expected_size_),
                        file_path_);
}

bool FileDownload::may_retry(const Error& error) const {
  if (exhausted_) return false;
  if (error.is(error_class::SyncUnavailableError)) return !error.fields().get("retryable").is_exactly(false);
  if (error.is(error_class::ManifestSupersededError) || error.is(error_class::PermanentDownloadError)) return false;
  if (error.is(error_class::IntegrityError)) return options_.retry_partial_transfer && options_.retry_checksum_mismatch;
  return error.is(error_class::ConnectionError) || error.is(error_class::SyncError);
}

bool FileDownload::checksum_fits(const std::string& actual_sha) {
  if (expected_sha_.empty() || expected_sha_ == actual_sha) return true;
  if (superseded()) {
    leave_superseded("sha256_mismatch", generation_fields().with("expected_sha", expected_sha_).with("actual_sha", actual_sha));
  }
  require_repair_left(actual_sha);
  log_event("checksum_repair", "sha256_mismatch", Document{{"expected_sha", expected_sha_}, {"actual_sha", actual_sha}});
  announce_wait("sha256_mismatch");
  staging_.clear();
  _sleep_for_sync_backoff(seams_, static_cast<float>(wait_seconds_));
  return false;
}

void FileDownload::require_repair_left(const std::string& actual_sha) {
  const std::string expected_and_got = "expected " + expected_sha_ + ", got " + actual_sha;
  if (!options_.retry_checksum_mismatch) throw integrity_error("Checksum failure for " + file_path_ + ": " + expected_and_got, file_path_);
  if (attempt_ < max_unchanged_checksum_repairs_) return;
  log_event("checksum_repair_exhausted",
            "server data inconsistent: checksum mismatch after unchanged manifest repair bound; contact BrackenFen",
            Document{{"expected_sha", expected_sha_},
                     {"actual_sha", actual_sha},
                     {"manifest_version", file_info_.get("_manifest_version")},
                     {"manifest_era_id", file_info_.get("_manifest_era_id")},
                     {"retryable", false},
                     {"recovery", "operator_fix_required"},
                     {"next_action", "Action: contact_brackenfen"}});
  staging_.clear();
  exhausted_ = true;
  throw integrity_error("Checksum failure for " + file_path_ +
                            ": server data inconsistent after unchanged manifest repair bound; contact BrackenFen. " + expected_and_got,
                        file_path_);
}

void FileDownload::land(const std::string& actual_sha) {
  const std::int64_t total_written = staging_.size_bytes();
  // Not into a folder that was moved away while the bytes came.
  if (!local_files_.still_leads_to(place_, file_path_)) throw os_error(ENOENT, place_.path());
  const std::optional<FileStat> landed = staging_.land(*seams_.files, place_);
  shown_.landed();
  const bool target_is_live = !options_.target_data_dir || *options_.target_data_dir == live_data_dir_;
  if (target_is_live) {
    if (const auto guard = manager_.runtime_freshness_guard.get()) {
      const Value* const kind = file_info_.find("kind");
      guard->record_sync_update(file_path_, kind == nullptr ? Value("") : *kind, actual_sha);
    }
    if (kind_ != "vault_module") manager_.hash_cache().remember_if_unchanged(file_path_, place_.path(), actual_sha, landed);
  }
  result_.bytes_downloaded += total_written;
  if (kind_ == "feature") ++result_.features_downloaded;
  if (is_found_pnl_file_kind(kind_)) result_.found_pnl_paths_downloaded.push_back(place_.path());
}

void FileDownload::announce_wait(std::string_view reason) {
  wait_shown_.failed(url_, attempt_ + 1, reason, wait_seconds_);
  if (options_.retry_status_callback) options_.retry_status_callback(wait_seconds_);
  _emit_sync_backoff_wait(seams_, options_.backoff_surface, attempt_, reason, file_path_, static_cast<float>(wait_seconds_));
}

void FileDownload::log_event(std::string_view event_type, std::string_view reason, const Document& fields) const {
  _log_sync_event(event_type, file_path_, attempt_ + 1, reason, fields);
}

Document FileDownload::generation_fields(std::optional<std::int64_t> range_start, std::optional<std::int64_t> range_end) const {
  return Document{{"expected_size", expected_size_},
                  {"actual_size", staging_.size_bytes()},
                  {"range_start", range_start ? Value(*range_start) : Value()},
                  {"range_end", range_end ? Value(*range_end) : Value()},
                  {"manifest_version", file_info_.get("_manifest_version")},
                  {"manifest_era_id", file_info_.get("_manifest_era_id")}};
}

void FileDownload::reset_after_416(const Document& fields) {
  // A server whose file has another size than the manifest says would answer so for ever.
  if (std::exchange(was_reset_, true)) {
    if (superseded()) leave_superseded("http_416", fields);
    require_repair_left(staging_.hex_digest());
  }
  log_event("range_resume_reset", "http_416", fields);
  staging_.clear();
  throw SyncError("Download resume reset for " + file_path_ + ": HTTP 416");
}

void FileDownload::leave_superseded(std::string_view reason, const Document& fields) {
  log_event("manifest_superseded", reason, fields);
  staging_.clear();  // its bytes belong to a dead generation
  throw ManifestSupersededError("Manifest advanced while downloading " + file_path_ + "; refreshing before retry");
}

}  // namespace

void SyncManager::_download_file(NeighbourSet& neighbours, const std::string& file_path, const Document& file_info, SyncResult& result,
                                 const DownloadOptions& options) {
  require_own_process();  // a callback may have forked during the file before
  std::optional<LocalFiles> opened;
  if (!options.local_files) {
    const std::string target = directory_or_live(options.target_data_dir);
    // A directory of the library's own choosing may be missing still; the live one is never made.
    if (target != _data_dir.get()) make_directories(target);
    opened.emplace(target);
  }
  // Not on the stack: what others see of it is read by their threads, while a host may have put this one's stack aside.
  std::make_unique<FileDownload>(*this, neighbours, file_path, file_info, result, options, opened ? *opened : *options.local_files)->run();
}

}  // namespace brackenfen::sync
