// Local paths as texts of bytes, as the operating system sees them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace brackenfen::sync {

/// os.path.join of two parts: an absolute second part stands alone.
[[nodiscard]] std::string join_path(std::string_view directory, std::string_view name);
/// os.path.dirname: everything before the last "/", without trailing slashes unless it is the root.
[[nodiscard]] std::string directory_of(std::string_view path);
/// os.path.realpath without the demand that anything exists: links are resolved as far as the path exists,
/// the rest is kept as written; "." and ".." are folded. A loop of links is left as it stands from there on.
[[nodiscard]] std::string real_path(std::string_view path);
/// os.path.abspath: made absolute against the working directory and folded, links untouched.
[[nodiscard]] std::string absolute_path(std::string_view path);
/// What keeps a text from naming a file inside a directory, whichever that is.
enum class RelativePathFault : std::uint8_t { Blank, NulByte, Absolute, Unsafe };
/// The first one of `path`, read with either separator and without blanks around it; absent for a path that stays inside.
/// Unsafe has a segment "..", or none that names anything.
[[nodiscard]] std::optional<RelativePathFault> fault_of_relative_path(std::string_view path);
/// A leading "~" or "~user" replaced by that user's home, where it is known.
[[nodiscard]] std::string expand_user(std::string_view path);
[[nodiscard]] bool path_exists(const std::string& path) noexcept;  ///< follows links, as os.path.exists
[[nodiscard]] bool is_directory(const std::string& path) noexcept;
/// Creates the directory with all missing parents; an existing directory is no error. Throws os_error.
void make_directories(const std::string& path);

}  // namespace brackenfen::sync
