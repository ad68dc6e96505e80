#include "sync/documents/departed_files.hpp"

#include <utility>

#include "sync/base/error.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/own_files.hpp"

namespace brackenfen::sync {

std::vector<DepartedFile> departed_files(const std::string& data_dir, const Value& old_files, const Value& new_files,
                                         const StringSet& live_paths) {
  const Document* const departing = old_files.if_document();
  const Document* const present = new_files.if_document();
  std::vector<DepartedFile> departed;
  if (departing == nullptr) return departed;
  OwnFiles own_files(data_dir);
  for (const Member& member : *departing) {
    if (present != nullptr && present->contains(member.key)) continue;
    try {
      std::string live_path = _manifest_local_path(data_dir, member.key);
      if (!live_paths.contains(live_path) && !own_files.contains_local(live_path))
        departed.push_back({member.key.str(), std::move(live_path)});
    } catch (const Error& error) {
      if (!error.is(error_class::ManifestError)) throw;
    }
  }
  return departed;
}

}  // namespace brackenfen::sync
