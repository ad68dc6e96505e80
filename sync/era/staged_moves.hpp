// The way of staged files to their live places: made sure of before the first of them moves, then gone.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/files/root_directory.hpp"
#include "sync/base/text/keyed_hash.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

/// Whether a rename can lead from one folder to the other. Throws os_error where one of them does not exist.
[[nodiscard]] bool on_same_mount(const std::string& folder, const std::string& other);

/// One thread.
class StagedMoves {
 public:
  using Reaches = std::function<bool(const std::string& folder, const std::string& other)>;

  /// From `staging_dir` to `data_dir`, which both exist. `departed` are the local paths of the files that go with the era
  /// before; it must outlive this.
  StagedMoves(Files& files, const std::string& staging_dir, const std::string& data_dir, const StringSet& departed,
              Reaches reaches = on_same_mount);
  StagedMoves(const StagedMoves&) = delete;
  StagedMoves& operator=(const StagedMoves&) = delete;
  /// Copies that did not get to their places are removed.
  ~StagedMoves();

  /// Plans a move; one to the same place again is left out. Departed files may stand in the way, be it as a file where
  /// a folder must be or as a folder where the file must be. For a place on another mount, which no rename reaches, the
  /// file is copied beside it now. Throws os_error, with nothing live touched, for anything else in the way and for a
  /// copy that cannot be made, and Interrupted.
  void add(const std::string& file_path);
  /// Moves all in the order in which they were added, each by one rename, before which departed files in its way are
  /// deleted. Calls `moved(file_path)` after each. Throws os_error, and what `moved` throws, with the rest unmoved.
  void run(const std::function<void(const std::string&)>& moved);

 private:
  struct Move {
    std::string file_path;
    std::string live_path;
    std::string obstacle;  ///< departed files that stand in the way; empty for none
    bool is_folder = false;
    std::string copy;  ///< to be moved in the staged file's place; empty for none
  };
  struct Folder {
    std::string path;
    bool reachable = true;  ///< by a rename from the staging directory
  };
  using EachFile = std::function<void(const Place&)>;

  static void find_obstacle(Move& move);
  /// Calls `each_file` for all files of the obstacle; returns its folders, parents first. Throws os_error where one of
  /// the files stays, before anything is called for those of its folder.
  std::vector<std::string> go_through(const Move& move, const EachFile& each_file) const;
  [[nodiscard]] bool departs(const std::string& local_path) const;
  void clear_the_way(const Move& move);
  [[nodiscard]] const Folder& folder_above(const std::string& live_path);
  [[nodiscard]] std::string copied_into(const std::string& folder, const std::string& file_path);
  /// By its absolute path below the data directory, in an open folder.
  [[nodiscard]] Place place_at(const std::string& local_path) const;

  Files& files_;
  const std::string data_dir_;
  const StringSet& departed_;
  const Reaches reaches_;
  const RootDirectory root_;
  LocalFiles staged_;
  LocalFiles live_;
  StringSet live_paths_;
  TextMap<Folder> folders_;  // by the folder of the live place: the nearest that exists
  std::vector<Move> moves_;
  std::vector<std::string> copies_;
};

}  // namespace brackenfen::sync
