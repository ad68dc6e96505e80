// The folders below one directory, each opened in a way that cannot leave it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/directory_reader.hpp"
#include "sync/base/files/place.hpp"

namespace brackenfen::sync {

/// How open_beneath goes from folder to folder: by one call of the kernel, where it has that, or name by name.
enum class FolderWalk : char { Kernel, ByName };

/// The folder at `relative_path` below the open `folder`, without a link on the way: a descriptor, or -1 with errno set
/// (ELOOP for a link).
[[nodiscard]] int open_beneath(int folder, const std::string& relative_path, int flags, FolderWalk walk = FolderWalk::Kernel) noexcept;

/// A directory as it was when this was made: one that takes its name later is another. Any thread.
class RootDirectory {
 public:
  /// Of an absolute path without links. Where it cannot be opened, no folder is found.
  explicit RootDirectory(std::string path);

  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// The descriptor, for looking and opening only; -1 for none.
  [[nodiscard]] int get() const noexcept { return directory_->get(); }
  /// Paths are relative, plain, and empty for the directory itself. Null with errno set as open_beneath does.
  [[nodiscard]] std::shared_ptr<const Descriptor> folder(const std::string& relative_path) const;
  /// The same, made with its parents where it is missing. Throws os_error.
  [[nodiscard]] std::shared_ptr<const Descriptor> make_folder(const std::string& relative_path) const;

  struct Search {
    std::vector<std::string> folders{""};  ///< where to begin, as relative paths
    bool hidden_folders = true;            ///< whether folders are entered whose name begins with a dot
    std::vector<std::string> left_out{};   ///< folders that are not entered, as relative paths
    /// Asked for every name below, by its relative path; on any thread.
    std::function<bool(const std::string& path, const DirectoryReader& reader, const dirent& entry)> picks;
    /// Told of what was picked, once all is read; on the calling thread, folders before what they hold.
    std::function<void(const Place& place)> found;
    /// Told of a folder that cannot be read to its end, before of what was picked in it; on the calling thread.
    std::function<void(const Error& error, const std::string& folder)> failed;
  };
  /// Follows no link. Folders are read on all cores, and looks at the interrupt at each.
  void search(const Search& search) const;

 private:
  struct Reading;
  class Descent;

  const std::string path_;
  const std::shared_ptr<const Descriptor> directory_;
};

}  // namespace brackenfen::sync
