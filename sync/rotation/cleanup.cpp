#include "sync/rotation/cleanup.hpp"

#include <cerrno>
#include <iterator>
#include <string>
#include <utility>

#include "sync/base/error.hpp"
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

/// `keep` with each path also in the spelling that a file on disk has.
TextSet in_local_spelling(const TextSet& keep) {
  TextSet local = keep;
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

void delete_files_not_kept(Files& files, std::string_view data_dir, const TextSet& keep) {
  // Most sets hold plain paths alone, which need no second spelling.
  bool all_plain = true;
  for (const Text& path : keep) all_plain = all_plain && is_plain_relative_path(path);
  const TextSet local = all_plain ? TextSet() : in_local_spelling(keep);
  const TextSet& kept = all_plain ? keep : local;
  RootDirectory(real_path(data_dir))
      .search({.folders = {std::begin(ARTIFACT_FOLDERS), std::end(ARTIFACT_FOLDERS)},
               .hidden_folders = false,
               .picks =
                   [&](const std::string& path, const DirectoryReader& reader, const dirent& entry) {
                     return !reader.is_directory(entry) && !contains(kept, path) && !reader.links_to_directory(entry);
                   },
               .found = [&](const Place& place) { files.unlink(place); },
               .failed =
                   [](const Error& error, const std::string& folder) {
                     if (!is_no_folder(error, folder)) throw error;
                   }});
}

}  // namespace brackenfen::sync
