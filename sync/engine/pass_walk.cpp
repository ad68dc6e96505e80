// The walk of a pass over its active paths: what must be downloaded, what stays, and whether the disk has the room.
#include <algorithm>
#include <span>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/integer_sum.hpp"
#include "sync/base/values/member_cursor.hpp"
#include "sync/documents/kept_files.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/engine/pass.hpp"
#include "sync/transport/seen_file.hpp"

namespace brackenfen::sync {
namespace {

/// The log names this many of the files that stay although they have changed on the server.
constexpr std::size_t KEPT_FILES_NAMED = 10;

}  // namespace

ExpectedFiles SyncManager::Pass::promised_files(const Document* files, const Document* local_files) const {
  MemberCursor entries(files);
  MemberCursor local_entries(local_files);
  ExpectedFiles promised;
  for (const Text& file_path : rotation_.plan.selection.active_relative_paths) {
    const Value* entry = entries.find(file_path);
    const Value* local_entry = local_entries.find(file_path);
    const Document* file_info = entry ? entry->if_document() : nullptr;
    const bool counts = file_info && local_entry && counts_as_promised(file_path, *file_info);
    promised.add(file_path, counts ? local_entry->if_document() : nullptr);
  }
  return promised;
}

void SyncManager::Pass::collect_downloads() {
  const Value files = server_->files();
  const bool same_era = local_ && local_->era_number() == server_->era_number();
  const Value local_manifest_files = same_era ? local_->files() : Value();
  const TextList& active_paths = rotation_.plan.selection.active_relative_paths;
  const std::vector<char> kept =
      match_at_a_glance(data_dir_, promised_files(files.if_document(), local_manifest_files.if_document()), manager_._hash_cache.view());
  MemberCursor entries(files.if_document());
  MemberCursor local_entries(local_manifest_files.if_document());
  LocalFiles local_files(data_dir_);
  OwnFiles own_files(data_dir_);
  std::vector<Member> wanted;
  seen_here_.assign(active_paths.size(), false);
  for (std::size_t index = 0; index < active_paths.size(); ++index) {
    const Text& file_path = active_paths[index];
    if (index % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
    const Value* entry = entries.find(file_path);
    const Document* file_info = entry ? entry->if_document() : nullptr;
    if (!file_info) throw SyncError("Active rotation path is missing from manifest: " + file_path.str());
    // The signals index is fetched, validated and written by a stage of its own.
    if (file_path.view() == SIGNALS_INDEX_RELATIVE_PATH || is_checked_elsewhere(*neighbours_, file_path, *entry)) continue;
    if (const Value& size = file_info->get("size_bytes"); size.if_real())  // one that no file can have is never committed
      static_cast<void>(manifest_integer(size, "size_bytes of " + file_path.str()));
    const Value* const local_entry = local_entries.find(file_path);
    if (kept[index]) {
      note_kept(file_path, *file_info, local_entry);
      seen_here_[index] = true;
    } else if (must_download(file_path, *file_info, local_entry, local_files)) {
      if (own_files.contains_local(local_files.local_path(file_path))) throw own_file_refusal(file_path);
      wanted.push_back({file_path, Value(generation_stamped(*file_info, *server_))});
    } else {
      seen_here_[index] = true;
    }
  }
  files_to_download_ = Document(std::move(wanted));
}

bool SyncManager::Pass::must_download(const Text& file_path, const Document& file_info, const Value* local_entry, LocalFiles& local_files) {
  const std::optional<FileStat> stat = local_files.stat(file_path);
  if (!stat || !stat->is_regular) return true;
  const auto local_path = [&] { return local_files.local_path(file_path); };

  if (local_entry && counts_as_promised(file_path, file_info)) {
    const Document* local_info = local_entry->if_document();
    if (local_info && manager_.file_matches(file_path, *stat, local_path, *local_info, true)) {
      note_kept(file_path, file_info, local_entry);
      return false;
    }
    if (!is_dry_run_) log_warning("Manifest-tracked local file failed integrity check; re-downloading: %s", file_path);
  }

  const bool vault_module = is_vault_module(file_info);
  const auto expected_sha = file_info.get("sha256").if_text();
  if (!vault_module && expected_sha && manager_._hash_cache.holds(file_path, *stat, *expected_sha)) return false;
  const std::string path = local_path();
  const std::optional<std::string> actual_sha = sha256_if_there(path);
  if (!actual_sha) return true;
  if (!vault_module) manager_._hash_cache.remember_if_unchanged(file_path, path, *actual_sha, *stat);
  return expected_sha != *actual_sha;
}

void SyncManager::Pass::note_kept(const Text& file_path, const Document& file_info, const Value* local_entry) {
  const Document* local_info = local_entry != nullptr ? local_entry->if_document() : nullptr;
  if (local_info != nullptr && states_other_bytes(file_info, *local_info)) kept_.push_back(file_path);
}

void SyncManager::Pass::warn_of_kept_files() const {
  if (kept_.empty()) return;
  std::string names;
  for (const Text& file_path : std::span(kept_).first(std::min(kept_.size(), KEPT_FILES_NAMED)))
    names += (names.empty() ? "" : ", ") + file_path.str();
  log_warning("%d files keep their bytes although the new manifest of this era states others, which come with the next pass: %s%s",
              kept_.size(), names, kept_.size() > KEPT_FILES_NAMED ? ", ..." : "");
}

Document SyncManager::generation_stamped(const Document& file_info, const Manifest& manifest) {
  const Document stated = without_stamps(file_info);
  std::vector<Member> members(stated.begin(), stated.end());
  if (manifest.base_url().truthy()) members.push_back({"_manifest_base_url", manifest.base_url()});
  members.push_back({"_manifest_version", manifest_integer(manifest.version(), "version")});
  members.push_back({"_manifest_era_id", manifest_integer(manifest.era_number(), "era_number")});
  return Document(std::move(members));
}

void SyncManager::Pass::check_disk() const {
  Value total_needed = 0;
  for (const Member& member : files_to_download_) {
    const Document& entry = *member.value.if_document();
    if (const Value* size = entry.find("size_bytes"))
      total_needed = add_integers(total_needed, manifest_integer(*size, "size_bytes of " + member.key.str()));
  }
  if (compare_integers(total_needed, 0) > 0 && compare_integers(total_needed, free_bytes_) > 0) {
    throw DiskSpaceError("Insufficient disk space: need " + to_text(total_needed) + " bytes, have " + std::to_string(free_bytes_) +
                         " bytes available");
  }
}

}  // namespace brackenfen::sync
