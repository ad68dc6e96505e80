#include "sync/documents/own_files.hpp"

#include <sys/stat.h>

#include <algorithm>

#include "sync/base/files/path_below.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view LOCK_FILE = ".sync_flock";
constexpr std::string_view LOCK_FILE_RESPELT = ".SYNC_FLOCK";
constexpr std::string_view OWN_FILES[] = {
    "manifest.json",    "sync-progress.json", ".sync_hash_cache.json",       ".consumer_count",
    LOCK_FILE,          ".transition_lock",   "feature-rotation-state.json", "feature-rotation-settings.json",
    "shuffle_seed.enc", ".told_era",          "shuffle_seed.enc.meta.json",  ".prefetched-features.json",
};
constexpr std::string_view STAGING_SUFFIX = ".tmp";  // of files, and of the folder in which a transition stages

enum class Match {
  None,
  Folded,  ///< but for letter case, or dots and blanks at the end of a name
  Exact,
};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equal_folded(std::string_view a, std::string_view b) { return std::ranges::equal(a, b, {}, lower, lower); }

std::string_view without_trailing_dots(std::string_view name) {
  return name.substr(0, name.find_last_not_of(". ") + 1);  // npos + 1 is 0
}

Match match_own(std::string_view name) {
  const std::string_view folded = without_trailing_dots(name);
  for (const std::string_view own : OWN_FILES) {
    if (folded.size() == own.size() && equal_folded(folded, own)) return name == own ? Match::Exact : Match::Folded;
  }
  return Match::None;
}

/// Of any name on the way. Paths hold few dots, so they are what is looked for.
Match match_staging(std::string_view relative_path) {
  Match best = Match::None;
  for (std::size_t at = relative_path.find('.'); at != std::string_view::npos; at = relative_path.find('.', at + 1)) {
    const std::string_view suffix = relative_path.substr(at, STAGING_SUFFIX.size());
    if (!equal_folded(suffix, STAGING_SUFFIX)) continue;
    const std::string_view rest = relative_path.substr(at + suffix.size());
    if (suffix == STAGING_SUFFIX && (rest.empty() || rest.front() == '/')) return Match::Exact;
    const std::size_t next = rest.find_first_not_of(". ");
    if (next == std::string_view::npos || rest[next] == '/') best = Match::Folded;
  }
  return best;
}

Match match(std::string_view relative_path) {
  return std::max(match_own(relative_path.substr(0, relative_path.find('/'))), match_staging(relative_path));
}

}  // namespace

ManifestError own_file_refusal(std::string_view file_path) {
  return ManifestError("Manifest lists a file of the library's own: " + std::string(file_path));
}

bool OwnFiles::contains(std::string_view relative_path) {
  const Match found = match(relative_path);
  return found == Match::Exact || (found == Match::Folded && folds_names());
}

bool OwnFiles::contains_local(std::string_view local_path) {
  const std::optional<std::string_view> relative_path = path_below(base(), local_path);
  return relative_path && contains(*relative_path);
}

void OwnFiles::refuse_in(const Value& files) {
  const Document* entries = files.if_document();
  if (!entries) return;
  for (const Member& member : *entries) {
    bool is_own = false;
    try {
      const Text& key = member.key;
      is_own = is_plain_relative_path(key) ? contains(key) : contains(_safe_manifest_relative_path(Value(key)));
    } catch (const Error& error) {
      if (!error.is(error_class::ManifestError)) throw;
    }
    if (is_own) throw own_file_refusal(member.key);
  }
}

void OwnFiles::refuse(std::string_view file_path) {
  std::string local_path;
  try {
    local_path = _manifest_local_path(data_dir_, Value(file_path));
  } catch (const Error& error) {
    if (!error.is(error_class::ManifestError)) throw;
    return;
  }
  if (contains_local(local_path)) throw own_file_refusal(file_path);
}

const std::string& OwnFiles::base() {
  if (base_.empty()) base_ = real_path(expand_user(data_dir_));
  return base_;
}

/// Asked of the lock file, which is there while a unit of work runs.
bool OwnFiles::folds_names() {
  if (!folds_names_) {
    struct stat lock {};
    struct stat other {};
    folds_names_ = ::lstat(join_path(base(), LOCK_FILE).c_str(), &lock) == 0 &&
                   ::lstat(join_path(base(), LOCK_FILE_RESPELT).c_str(), &other) == 0 && lock.st_dev == other.st_dev &&
                   lock.st_ino == other.st_ino;
  }
  return *folds_names_;
}

}  // namespace brackenfen::sync
