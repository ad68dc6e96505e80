// Looking at many local files of one data directory within one operation, and their places for writing.
//
// The answers are those of _manifest_local_path followed by a stat of its result, at the price of one system
// call per file. A folder is opened once, in a way that proves it lies inside the directory with no link on
// the way; its files are then looked at beneath that descriptor. Wherever a link shows up, the kernel cannot
// prove it, or anything else is unusual, the path is resolved in full.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

/// Lives within one operation: what it knows of a folder is as old as its first look at it. One thread.
class LocalFiles {
 public:
  /// Throws nothing for a directory that does not exist: no file is found then.
  explicit LocalFiles(std::string_view data_dir);
  /// The same of a directory that is open, so that several threads look at one whatever becomes of its path.
  LocalFiles(std::string_view data_dir, RootDirectory root);

  /// The file's stat, links followed; absent where it does not exist or cannot be looked at. Throws
  /// ManifestError for a path that is refused or leads out of the directory.
  [[nodiscard]] std::optional<FileStat> stat(std::string_view file_path);
  /// The file open for reading, where it is a regular one and no link is on the way; else none, and nothing is decided.
  /// Throws ManifestError as above.
  struct Opened {
    Descriptor file;
    FileStat stat;
  };
  [[nodiscard]] std::optional<Opened> open(std::string_view file_path);
  enum class Parents : char { Make, Leave };
  /// Where the file is to be written or removed: its folder is opened anew, without a link and inside the directory, and
  /// made where it is missing. A link that stays inside the directory is followed. Throws ManifestError as above and for
  /// one of the library's own files, and os_error.
  [[nodiscard]] Place place(std::string_view file_path, Parents parents = Parents::Make);
  /// The same for one of many files: the folder that was found last is not opened again. It is as old as that.
  [[nodiscard]] Place next_place(std::string_view file_path, Parents parents = Parents::Make);
  /// Whether `place`, where the file's way led before, is in the folder that a look from the beginning finds. What stands
  /// under its name is not looked at where it was no link then: a rename replaces it. Throws as place does.
  [[nodiscard]] bool still_leads_to(const Place& place, std::string_view file_path);
  /// _manifest_local_path of it.
  [[nodiscard]] std::string local_path(std::string_view file_path);

 private:
  /// An open folder. Kept in a table by the hash of its path, where a newcomer takes the place of the one
  /// before, so that the number of descriptors stays bounded.
  struct Folder {
    std::string path;
    Descriptor descriptor;
  };
  static constexpr std::size_t MAX_OPEN_FOLDERS = 64;

  enum class Look {
    Found,
    Missing,     ///< and no link on the way, as far as the path exists
    NotDecided,  ///< resolve the path in full
  };

  Look look(std::string_view relative_path, FileStat& found);
  /// The descriptor of the folder that holds the file, whose name is then in `name_`; -1 with errno set.
  int open_parent(std::string_view relative_path);
  /// The descriptor of the folder, or -1 with errno set.
  int open_folder(std::string_view folder_path);
  /// next_place, without a look for a link where it would lead to `known`.
  [[nodiscard]] Place find_place(std::string_view file_path, Parents parents, const Place* known);
  /// The folder of a place, which may be the last one; null with errno set.
  [[nodiscard]] std::shared_ptr<const Descriptor> place_folder(const std::string& folder_path);

  const std::string data_dir_;
  const RootDirectory root_;
  OwnFiles own_files_{data_dir_};
  const std::string base_;  // data_dir_ resolved
  std::string name_;        // reused: the file name with its terminator
  std::array<Folder, MAX_OPEN_FOLDERS> folders_;
  std::string last_place_folder_path_;
  std::shared_ptr<const Descriptor> last_place_folder_;
};

}  // namespace brackenfen::sync
