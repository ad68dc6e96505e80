// What the paths of requests mean in a distribution tree.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/files/descriptor.hpp"
#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {

/// A file of the tree as it was when it was opened.
struct Resource {
  Descriptor file;
  std::int64_t size_bytes = 0;
  const char* content_type = "application/octet-stream";
  std::optional<std::int64_t> era;  ///< for X-Era-Id
};

/// Nothing is kept between two look-ups, so a publication shows at once. Any thread.
class TreeReader {
 public:
  /// Throws Error where `tree` holds no distribution tree.
  explicit TreeReader(const std::string& tree);

  /// Absent where the tree holds no such file. Neither ".." nor a link leads out of it.
  [[nodiscard]] std::optional<Resource> find(std::string_view request_path) const;

 private:
  [[nodiscard]] std::optional<Resource> open(const std::string& path_in_tree) const;
  [[nodiscard]] std::optional<Resource> open_seed() const;

  TreePaths paths_;
  Descriptor root_;
};

}  // namespace brackenfen::sync::distribution
