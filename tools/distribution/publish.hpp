// Turning a folder of artifacts into a distribution tree that a web server or object store serves as it is.
//
// What is being served stays consistent for readers: new contents and documents are staged aside, all of them, then
// renamed into place in the order files, seed, manifest, version, era. Files that the new manifest no longer names go
// last. So a disk that fills up, or Ctrl-C, leaves the tree as it was. A publication that is killed during the renames
// leaves the old manifest in force, and publishing again completes the tree. Nothing is flushed to stable storage.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/distribution/era.hpp"
#include "tools/distribution/named_files.hpp"

namespace brackenfen::sync::distribution {

struct PublishOptions {
  std::string source;
  std::string out;
  std::int64_t era = 0;
  std::int64_t version = 0;
  std::string base_url;               ///< where clients fetch data files; empty for the server's own /data/files
  std::int64_t pnl_column_count = 0;  ///< left out of the manifest when 0
  std::string shuffle_seed;           ///< used where the source has none; one is made from the era where this is empty too
  bool link = false;                  ///< hard links instead of copies, where the file system allows it
  bool check_documents = true;
  EraShape era_shape = EraShape::Flat;
  std::string min_library_version = "0.0.0";
  double progress_seconds = 10;  ///< between two lines about a long publication, see Progress
};

/// What clients that hold the version before will notice.
struct PublishedChanges {
  std::int64_t era = 0;  ///< of the version before
  std::int64_t version = 0;
  NamedFiles added, changed, removed;
};

struct PublishReport {
  std::int64_t era = 0;
  std::int64_t version = 0;
  std::size_t files = 0;
  std::int64_t bytes = 0;
  std::size_t placed = 0;   ///< new or changed
  std::size_t kept = 0;     ///< already in the tree with the same content
  std::size_t dropped = 0;  ///< no longer part of the data set
  NamedFiles left_out;      ///< private to clients, see is_private_to_clients
  double seconds = 0;
  std::optional<PublishedChanges> changes;  ///< absent for a tree's first version
  std::vector<std::string> warnings;        ///< what clients will stumble on, a line each
};

/// The source may be the tree's own data/files. Throws Error, and Stopped for a signal that came before the first rename; the
/// tree is as before then. One publication runs on a tree at a time; a second one is refused.
PublishReport publish(const PublishOptions& options);

}  // namespace brackenfen::sync::distribution
