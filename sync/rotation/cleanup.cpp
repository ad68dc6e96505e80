#include "sync/rotation/cleanup.hpp"

#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* ARTIFACT_FOLDERS[] = {"features",      "named_universes",  "universe_masks",
                                            "found_signals", "found_strategies", "useful_signals"};

/// A walk below one base directory; folders and files by their path relative to it.
class Walk {
 public:
  Walk(Files& files, std::string base, const TextSet& keep) : files_(files), root_(std::move(base)), keep_(keep) {}

  void run(const char* top_folder) {
    pending_.emplace_back(top_folder);
    while (!pending_.empty()) {
      const std::string folder = std::move(pending_.back());
      pending_.pop_back();
      check_interrupt();
      clean(folder);
    }
  }

 private:
  void clean(const std::string& folder) {
    std::vector<std::string> doomed;  // deleted once the folder is read: some file systems skip names otherwise
    const auto opened = std::make_shared<const Descriptor>(open_beneath(root_.get(), folder, O_RDONLY | O_DIRECTORY));
    try {
      if (!*opened) throw os_error(errno, join_path(root_.path(), folder));
      DirectoryReader reader(*opened, join_path(root_.path(), folder));
      std::string path = folder + "/";
      const std::size_t prefix = path.size();
      while (const dirent* const entry = reader.next()) {
        path.resize(prefix);
        path += entry->d_name;
        if (reader.is_directory(*entry)) {
          if (entry->d_name[0] != '.') pending_.push_back(path);
        } else if (!contains(keep_, path) && !reader.links_to_directory(*entry)) {
          doomed.push_back(path);
        }
      }
    } catch (const Error& error) {
      if (!is_no_folder(error, folder)) throw;
    }
    for (const std::string& path : doomed) files_.unlink(Place(opened, join_path(root_.path(), path)));
  }

  /// A folder that does not exist, and at the top a link or a file in its place, hold nothing to delete.
  static bool is_no_folder(const Error& error, const std::string& folder) {
    if (error.is(error_class::FileNotFoundError)) return true;
    const bool top = folder.find('/') == std::string::npos;
    return top && (error.is(error_class::NotADirectoryError) || error.fields().get("errno") == Value(ELOOP));
  }

  Files& files_;
  const RootDirectory root_;
  const TextSet& keep_;
  std::vector<std::string> pending_;
};

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
  Walk walk(files, real_path(data_dir), all_plain ? keep : local);
  for (const char* folder : ARTIFACT_FOLDERS) walk.run(folder);
}

}  // namespace brackenfen::sync
