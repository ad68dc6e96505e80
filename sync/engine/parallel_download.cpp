// A set of independent files, fetched at once by a few workers.
#include <algorithm>
#include <cstdint>
#include <exception>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/engine/download_batch.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t PREVIEWED_PATHS = 3;

[[noreturn]] void throw_timed_out(const std::vector<std::string>& pending_paths, std::optional<double> timeout_seconds) {
  const std::size_t shown = std::min(pending_paths.size(), PREVIEWED_PATHS);
  std::string preview = join({pending_paths.begin(), pending_paths.begin() + static_cast<std::ptrdiff_t>(shown)}, ", ");
  if (pending_paths.size() > shown) preview += ", ...";
  throw SyncError("Timed out after " + _sync_parallel_timeout_description(timeout_seconds) + " in parallel download with " +
                  std::to_string(pending_paths.size()) + " file(s) pending: " + preview);
}

/// Whether the caller, who is told, can do without the file that failed.
bool is_tolerated(const std::exception_ptr& failure, const DownloadFailureFn& tolerates) {
  try {
    std::rethrow_exception(failure);
  } catch (const Error& error) {
    return tolerates && tolerates(error);
  } catch (...) {  // an interrupt, or a lack of memory
    return false;
  }
}

/// The form for one worker: on the calling thread, in order. What is not tolerated ends it at once.
void download_one_by_one(SyncManager& manager, NeighbourSet& neighbours, const std::vector<DownloadBatch::Item>& items, SyncResult& result,
                         const DownloadFailureFn& tolerates) {
  LocalFiles local_files(manager._data_dir.get());
  const std::unique_ptr<HttpConnections> connections = manager.seams().http->connections();
  SyncManager::DownloadOptions options;
  options.local_files = &local_files;
  options.connections = connections.get();
  std::exception_ptr first_error;
  for (const DownloadBatch::Item& item : items) {
    try {
      manager._download_file(neighbours, item.file_path, item.file_info, result, options);
    } catch (const Error&) {
      if (!is_tolerated(std::current_exception(), tolerates)) throw;
      if (!first_error) first_error = std::current_exception();
    }
  }
  if (first_error) std::rethrow_exception(first_error);
}

/// Adds a worker's record to the caller's. Only the calling thread writes to `total`.
void add_result(SyncResult& total, const SyncResult& part) {
  total.bytes_downloaded += part.bytes_downloaded;
  total.features_downloaded += part.features_downloaded;
  total.found_pnl_paths_downloaded.insert(total.found_pnl_paths_downloaded.end(), part.found_pnl_paths_downloaded.begin(),
                                          part.found_pnl_paths_downloaded.end());
}

/// Adds up what the workers hand over, until there is no more or the deadline has come. Returns the first error, null for
/// none; the news of a newer manifest takes its place, and cancels the batch.
std::exception_ptr take_outcomes(DownloadBatch& batch, std::optional<double> deadline_seconds, SyncResult& result,
                                 const DownloadFailureFn& tolerates) {
  std::exception_ptr first_error;
  while (const std::optional<DownloadBatch::Outcome> outcome = batch.next_outcome(deadline_seconds)) {
    if (!outcome->failure) {
      add_result(result, outcome->result);
    } else if (outcome->superseded) {
      batch.cancel();
      return outcome->failure;
    } else {
      static_cast<void>(is_tolerated(outcome->failure, tolerates));
      if (!first_error) first_error = outcome->failure;
    }
  }
  return first_error;
}

}  // namespace

void SyncManager::_download_files_parallel(const std::shared_ptr<NeighbourSet>& neighbours, const Document& files_to_download,
                                           SyncResult& result, const DownloadFailureFn& tolerates) {
  if (files_to_download.empty()) return;
  std::vector<DownloadBatch::Item> items;
  for (const Member& member : files_to_download) items.push_back({member.key.str(), *member.value.if_document()});
  const auto item_count = static_cast<std::int64_t>(items.size());
  const std::int64_t worker_count = std::min(item_count, _sync_max_concurrency(*seams_.environment));
  if (worker_count <= 1) return download_one_by_one(*this, *neighbours, items, result, tolerates);

  const std::optional<double> timeout_seconds = _sync_parallel_timeout_seconds(*seams_.environment, item_count, worker_count);
  std::optional<double> deadline_seconds;
  if (timeout_seconds) deadline_seconds = seams_.clock->monotonic_seconds() + *timeout_seconds;
  const auto batch = std::make_shared<DownloadBatch>(shared_from_this(), neighbours, std::move(items));

  std::exception_ptr first_error;
  bool timed_out = false;
  try {
    batch->start(worker_count);
    first_error = take_outcomes(*batch, deadline_seconds, result, tolerates);
    timed_out = !batch->cancelled() && !batch->finished();
    batch->drop_queue();
    if (timed_out) {
      batch->abandon();  // running workers go on by themselves
    } else {
      batch->wait_for_workers();
    }
  } catch (...) {  // an interrupt, or no memory to go on: nobody must work on without the locks that the caller now drops
    batch->drop_queue();
    batch->interrupt_workers();
    batch->wait_for_workers();
    while (const std::optional<DownloadBatch::Outcome> outcome = batch->next_outcome({})) {
      if (!outcome->failure) add_result(result, outcome->result);
    }
    throw;
  }
  if (timed_out) throw_timed_out(batch->pending_paths(), timeout_seconds);
  if (!first_error) first_error = batch->lost_outcome();
  if (first_error) std::rethrow_exception(first_error);
}

}  // namespace brackenfen::sync
