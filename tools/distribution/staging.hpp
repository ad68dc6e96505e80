// What a publication prepares beside a tree, so that nothing but renames is left to do when the first of them is made.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {

/// The tree's folder ".publishing" and the moves out of it. However it ends, the folder is gone with it, and without a
/// commit() so are the folders that were made for the moves. One thread, but for path().
class Staging {
 public:
  /// Begins with an empty folder, whatever a publication that was killed has left. Throws os_error.
  explicit Staging(TreePaths paths);
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;
  ~Staging();

  /// Where something of that name waits for its move.
  [[nodiscard]] std::string path(std::string_view name) const { return paths_.staging() + "/" + std::string(name); }

  /// Makes ready for the move of what waits at `staged` to `target`; whatever could stop it is found out here. Throws Error.
  void add_move(std::string staged, std::string target);
  /// The same for `bytes`, which are written first, and dated after what they replace: after `served_as`, where readers know
  /// them by that name.
  void add_document(std::string_view name, std::string_view bytes, std::string target, const std::string& served_as = {});
  /// Makes the moves, in the order in which they were added. Throws os_error.
  void commit();

 private:
  /// What a rename cannot leave: a mount, which a file system may have several of.
  struct Mount {
    std::uint64_t device = 0, id = 0;
    bool operator==(const Mount&) const = default;
  };
  static Mount mount_of(const std::string& folder);
  void remove_empty_folders();

  const TreePaths paths_;
  Mount mount_;
  std::vector<std::string> folders_;  // made for the moves
  std::vector<std::pair<std::string, std::string>> moves_;
  bool committed_ = false;
};

}  // namespace brackenfen::sync::distribution
