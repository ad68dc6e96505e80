// Turning a folder of artifacts into a distribution tree that a web server or object store serves as it is.
//
// What is being served stays consistent for readers: new contents are staged aside, then renamed into place,
// and the documents follow in the order files, seed, manifest, version, era. Files that the new manifest no
// longer names go last. A publication that dies in between leaves the old manifest in force, and publishing
// again completes the tree. Nothing is flushed to stable storage.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/distribution/era.hpp"

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
};

struct PublishReport {
  std::size_t files = 0;
  std::int64_t bytes = 0;
  std::size_t placed = 0;    ///< new or changed
  std::size_t kept = 0;      ///< already in the tree with the same content
  std::size_t dropped = 0;   ///< no longer part of the data set
  std::size_t left_out = 0;  ///< private to clients, see is_private_to_clients
};

/// The source may be the tree's own data/files. Throws Error. One publication runs on a tree at a time; a second one is refused.
PublishReport publish(const PublishOptions& options);

}  // namespace brackenfen::sync::distribution
