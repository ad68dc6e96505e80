// What one manifest listed and the next one does not.
#pragma once

#include <string>
#include <vector>

#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

struct DepartedFile {
  std::string file_path;  ///< as `old_files` spells it
  std::string live_path;  ///< the local path that it leads to
};

/// The keys of `old_files` that `new_files` lacks, in their order; none of the library's own files, and no path that never had
/// a file here. `live_paths` are where the new ones lie, whose manifest may spell one of them in another way.
[[nodiscard]] std::vector<DepartedFile> departed_files(const std::string& data_dir, const Value& old_files, const Value& new_files,
                                                       const StringSet& live_paths);

}  // namespace brackenfen::sync
