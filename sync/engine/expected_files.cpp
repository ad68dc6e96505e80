#include "sync/engine/expected_files.hpp"

#include <cmath>
#include <memory>
#include <optional>

#include "sync/base/error.hpp"
#include "sync/base/threads/parallel.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/local_files.hpp"

namespace brackenfen::sync {

bool size_fits(const Document& file_info, std::int64_t size_bytes) {
  const Value& stated = file_info.get("size_bytes");
  if (const auto number = stated.if_integer()) return *number < 0 || *number == size_bytes;
  if (stated.is_null()) return true;
  if (const auto real = stated.if_real(); real && !std::isfinite(*real)) return false;
  const Value expected = to_integer_or_absent(stated).value_or(Value(-1));
  return compare_integers(expected, 0) < 0 || expected == Value(size_bytes);
}

std::vector<char> match_at_a_glance(const std::string& data_dir, const ExpectedFiles& files, const HashCache::View& digests) {
  std::vector<char> matches(files.size(), 0);
  static_cast<void>(for_each_index(files.size(), [&]() -> IndexWork {
    return [&, local_files = std::make_shared<LocalFiles>(data_dir)](std::size_t index) {
      const ExpectedFile& file = files[index];
      if (!file.file_info) return true;
      try {
        const std::optional<FileStat> stat = local_files->stat(file.file_path);
        matches[index] = stat && glance_at(file.file_path, *stat, *file.file_info, &digests) == Glance::Matches;
      } catch (const Error& error) {
        if (!error.is(error_class::ManifestError)) throw;
      }
      return true;
    };
  }));
  return matches;
}

}  // namespace brackenfen::sync
