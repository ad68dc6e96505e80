// The files that the library keeps for itself in a data directory, which no manifest may name.
//
// A manifest that named one would have it written with bytes of its own: a client could not start again after that, even
// once the server is mended, or would follow settings that its operator never made.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Answers for one data directory, within one operation. One thread.
class OwnFiles {
 public:
  explicit OwnFiles(std::string_view data_dir) : data_dir_(data_dir) {}

  /// Whether `relative_path`, in the normal form of a manifest path, is one of the library's own files, lies in one, or
  /// passes through a name that ends in ".tmp". Where the file system takes several spellings for one name, each of
  /// them counts.
  [[nodiscard]] bool contains(std::string_view relative_path);
  /// The same for an absolute path with its links resolved; false for one outside the directory.
  [[nodiscard]] bool contains_local(std::string_view local_path);
  /// Throws ManifestError at the first key of `files` that names one. Reads the keys alone, which is quick. Here and
  /// below, what no file can be called is passed over: it is refused when it is its turn.
  void refuse_in(const Value& files);
  /// Throws ManifestError where `file_path` leads to one, be it through links.
  void refuse(std::string_view file_path);

 private:
  [[nodiscard]] const std::string& base();
  [[nodiscard]] bool folds_names();

  const std::string data_dir_;
  std::string base_;  // data_dir_ resolved; empty until it is needed
  std::optional<bool> folds_names_;
};

[[nodiscard]] ManifestError own_file_refusal(std::string_view file_path);

}  // namespace brackenfen::sync
