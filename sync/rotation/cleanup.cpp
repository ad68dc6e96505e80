#include "sync/rotation/cleanup.hpp"

#include <atomic>
#include <cerrno>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/path_below.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* ARTIFACT_FOLDERS[] = {"features",      "named_universes",  "universe_masks",
                                            "found_signals", "found_strategies", "useful_signals"};

/// A folder that does not exist, and at the top a link or a file in its place, hold nothing to delete.
bool is_no_folder(const Error& error, const std::string& folder) {
  if (error.is(error_class::FileNotFoundError)) return true;
  const bool top = folder.find('/') == std::string::npos;
  return top && (error.is(error_class::NotADirectoryError) || error.fields().get("errno") == Value(ELOOP));
}

/// Those of the kept paths that a file on disk spells otherwise, in its spelling.
TextSet in_local_spelling(const TextSet& keep) {
  TextSet local;
  for (const Text& path : keep) {
    if (is_plain_relative_path(path)) continue;
    try {
      local.insert(Text(_safe_manifest_relative_path(Value(path))));
    } catch (const Error& error) {
      if (!error.is(error_class::ManifestError)) throw;  // it never had a file here
    }
  }
  return local;
}

}  // namespace

std::vector<std::string> find_files_not_kept(std::string_view data_dir, const TextSet& keep, const FoundFile& found) {
  const RootDirectory root(real_path(data_dir));
  const std::vector<std::string> folders(std::begin(ARTIFACT_FOLDERS), std::end(ARTIFACT_FOLDERS));
  std::atomic<bool> may_hold_staging = false;  // a name of a staging file was seen, or a folder was not entered
  std::optional<TextSet> respelt;              // made for the first file that is not kept, which mostly there is none of
  root.search({.folders = folders,
               .hidden_folders = false,
               .picks =
                   [&](const std::string& path, const DirectoryReader& reader, const dirent& entry) {
                     const bool is_directory = reader.is_directory(entry);
                     if (path.ends_with(".tmp") || (is_directory && entry.d_name[0] == '.')) may_hold_staging = true;
                     return !is_directory && !contains(keep, path) && !reader.links_to_directory(entry);
                   },
               .found =
                   [&](const Place& place) {
                     if (!respelt) respelt = in_local_spelling(keep);
                     const std::string& local_path = place.path();
                     const std::string_view relative_path = path_below(root.path(), local_path).value_or("");
                     if (!contains(*respelt, relative_path)) found(place, relative_path);
                   },
               .failed =
                   [](const Error& error, const std::string& folder) {
                     if (!is_no_folder(error, folder)) throw error;
                   }});
  const bool are_theirs = expand_user(data_dir) == data_dir;  // staging files lie where a "~" leads, which is not followed here
  return are_theirs && !may_hold_staging ? folders : std::vector<std::string>();
}

std::vector<std::string> delete_files_not_kept(Files& files, std::string_view data_dir, const TextSet& keep,
                                               const std::function<void(std::string_view relative_path)>& deleted) {
  return find_files_not_kept(data_dir, keep, [&](const Place& place, std::string_view relative_path) {
    files.unlink(place);
    if (deleted) deleted(relative_path);
  });
}

}  // namespace brackenfen::sync
