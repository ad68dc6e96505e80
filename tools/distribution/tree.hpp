// Where things lie in a distribution tree. Publishing writes it, serving and nginx read it:
//
//   data/manifest.json           what clients must hold
//   data/manifest-version.json   {"version", "era_number"}, for the light poll
//   data/files/...               the artifacts under their relative paths
//   data/shuffle                 a link to seeds/era-{n}.enc: one rename changes the seed and its era together
//   data/seeds/era-{n}.enc       the 60-byte shuffle seed of an era
//   era/current.json             the era as /era/current reports it
//   .publishing/                 files and documents on their way in; present only while a publication runs
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/values/value.hpp"
#include "sync/transport/files.hpp"
#include "tools/distribution/named_files.hpp"

namespace brackenfen::sync::distribution {

inline constexpr std::size_t SHUFFLE_SEED_BYTES = 60;

/// Paths inside one tree; pure text.
struct TreePaths {
  std::string root;

  [[nodiscard]] std::string manifest() const { return root + "/data/manifest.json"; }
  [[nodiscard]] std::string manifest_version() const { return root + "/data/manifest-version.json"; }
  [[nodiscard]] std::string files() const { return root + "/data/files"; }
  [[nodiscard]] std::string file(std::string_view relative_path) const { return files() + "/" + std::string(relative_path); }
  [[nodiscard]] std::string seed_link() const { return root + "/data/shuffle"; }
  [[nodiscard]] std::string seed_folder() const { return root + "/data/seeds"; }
  [[nodiscard]] std::string seed(std::int64_t era) const { return seed_folder() + "/era-" + std::to_string(era) + ".enc"; }
  [[nodiscard]] std::string era_current() const { return root + "/era/current.json"; }
  [[nodiscard]] std::string staging() const { return root + "/.publishing"; }
};

/// What a tree holds already.
struct PublishedManifest {
  std::int64_t era = 0;
  std::int64_t version = 0;
  std::string base_url;               ///< empty where it has none
  std::int64_t pnl_column_count = 0;  ///< 0 where it has none
  Document files;                     ///< relative path to file entry
  Document document;                  ///< all of it
};

/// Absent where the tree has no manifest yet. Throws Error for one that cannot be read.
[[nodiscard]] std::optional<PublishedManifest> read_published_manifest(const TreePaths& paths);
/// The same of a tree that must have one.
[[nodiscard]] PublishedManifest require_published_manifest(const TreePaths& paths);

/// Dates the file at `path` at least a second after `replaced`, the one that readers had before. Web servers make validators of
/// whole seconds and the size, which the next document often shares: two in one second would be one to every cache. Throws os_error.
void date_after(const std::string& path, const std::optional<FileStat>& replaced);

/// The era that a seed link's target names ("seeds/era-7.enc" gives 7).
[[nodiscard]] std::optional<std::int64_t> era_of_seed_target(std::string_view target);

/// One artifact of a source folder.
struct SourceFile {
  std::string relative_path;
  std::string local_path;  ///< links resolved
  std::int64_t size_bytes = 0;
};

struct SourceScan {
  std::vector<SourceFile> files;  ///< sorted by relative path; the shuffle seed is not among them
  NamedFiles left_out;            ///< private to clients
  std::optional<std::string> seed_path;
};

/// Walks a folder of artifacts. Throws Error where a name cannot be published, a link leads out of the
/// folder, to a folder or nowhere, or something is neither file nor folder.
[[nodiscard]] SourceScan scan_source(const std::string& source);

}  // namespace brackenfen::sync::distribution
