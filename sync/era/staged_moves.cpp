#include "sync/era/staged_moves.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <tuple>

#include "sync/base/error.hpp"
#include "sync/base/files/directory_reader.hpp"
#include "sync/base/files/path_below.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t COPY_BLOCK_BYTES = 256 * 1024;
constexpr int NOTHING = 0;
constexpr int BEHIND_A_FILE = -1;  // a folder on the way is none

/// What stands at `path`, links not followed: its type (S_IFMT), or one of the above.
int kind_at(const std::string& path) {
  struct stat found {};
  if (::lstat(path.c_str(), &found) == 0) return static_cast<int>(found.st_mode & S_IFMT);
  if (errno == ENOENT) return NOTHING;
  if (errno == ENOTDIR) return BEHIND_A_FILE;
  throw os_error(errno, path);
}

/// The device, and the mount where the kernel tells: one file system may be mounted at several places.
std::tuple<std::uint32_t, std::uint32_t, std::uint64_t> mount_of(const std::string& path) {
  struct statx found {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &found) != 0) throw os_error(errno, path);
  return {found.stx_dev_major, found.stx_dev_minor, (found.stx_mask & STATX_MNT_ID) != 0 ? found.stx_mnt_id : 0};
}

std::string in_root(const RootDirectory& root, const std::string& path) { return std::string(path_below(root.path(), path).value_or("")); }

void copy_file(const Place& from, const Place& to) {
  const Descriptor source = open_at(from, O_RDONLY | O_NOFOLLOW);
  ::unlinkat(to.folder(), to.name(), 0);  // of a transition that was killed
  Descriptor target = open_at(to, O_WRONLY | O_CREAT | O_EXCL);
  const auto block = std::make_unique_for_overwrite<char[]>(COPY_BLOCK_BYTES);
  while (const std::size_t count = read_some(source, block.get(), COPY_BLOCK_BYTES, from.path())) {
    write_all(target, {block.get(), count}, to.path());
    check_interrupt();
  }
  target.close();
}

}  // namespace

bool on_same_mount(const std::string& folder, const std::string& other) { return mount_of(folder) == mount_of(other); }

StagedMoves::StagedMoves(Files& files, const std::string& staging_dir, const std::string& data_dir, const StringSet& departed,
                         Reaches reaches)
    : files_(files),
      data_dir_(data_dir),
      departed_(departed),
      reaches_(std::move(reaches)),
      root_(real_path(expand_user(data_dir))),
      staged_(staging_dir),
      live_(data_dir) {}

StagedMoves::~StagedMoves() {
  for (const std::string& copy : copies_) {
    try {
      const Place place = place_at(copy);
      ::unlinkat(place.folder(), place.name(), 0);
    } catch (const std::exception&) {  // the next pass removes it
    }
  }
}

void StagedMoves::add(const std::string& file_path) {
  Move move{.file_path = file_path, .live_path = _manifest_local_path(data_dir_, file_path), .obstacle = {}, .copy = {}};
  if (!live_paths_.insert(move.live_path).second) return;
  if (move.live_path == root_.path()) throw os_error(EISDIR, move.live_path);  // where a link led
  find_obstacle(move);
  if (!move.obstacle.empty()) static_cast<void>(go_through(move, [](const Place&) {}));
  if (const Folder& folder = folder_above(move.live_path); !folder.reachable) move.copy = copied_into(folder.path, file_path);
  moves_.push_back(std::move(move));
}

void StagedMoves::run(const std::function<void(const std::string&)>& moved) {
  for (const Move& move : moves_) {
    if (!move.obstacle.empty()) clear_the_way(move);
    const Place place = live_.place(move.file_path);
    files_.rename(move.copy.empty() ? staged_.place(move.file_path, LocalFiles::Parents::Leave) : place_at(move.copy), place);
    moved(move.file_path);
  }
}

void StagedMoves::find_obstacle(Move& move) {
  const int kind = kind_at(move.live_path);
  if (kind == S_IFDIR) {
    move.obstacle = move.live_path;
    move.is_folder = true;
  } else if (kind == BEHIND_A_FILE) {
    move.obstacle = directory_of(move.live_path);
    while (kind_at(move.obstacle) == BEHIND_A_FILE) move.obstacle = directory_of(move.obstacle);
  }
}

std::vector<std::string> StagedMoves::go_through(const Move& move, const EachFile& each_file) const {
  if (!move.is_folder) {
    if (!departs(move.obstacle)) throw os_error(ENOTDIR, move.obstacle);
    each_file(place_at(move.obstacle));
    return {};
  }
  std::vector<std::string> folders{move.obstacle};
  for (std::size_t next = 0; next < folders.size(); ++next) {
    check_interrupt();
    const std::string folder_path = folders[next];
    const auto folder = std::make_shared<const Descriptor>(open_beneath(root_.get(), in_root(root_, folder_path), O_RDONLY | O_DIRECTORY));
    if (!*folder) throw os_error(errno, folder_path);
    std::vector<Place> files;  // deleted once the folder is read: some file systems skip names otherwise
    DirectoryReader reader(*folder, folder_path);
    while (const dirent* const entry = reader.next()) {
      std::string path = join_path(folder_path, entry->d_name);
      if (reader.is_directory(*entry)) {
        folders.push_back(std::move(path));
      } else if (departs(path)) {
        files.emplace_back(folder, std::move(path));
      } else {
        throw os_error(EISDIR, move.obstacle);
      }
    }
    for (const Place& place : files) each_file(place);
  }
  return folders;
}

bool StagedMoves::departs(const std::string& local_path) const { return local_path.ends_with(".tmp") || departed_.contains(local_path); }

void StagedMoves::clear_the_way(const Move& move) {
  const int kind = kind_at(move.obstacle);
  if (kind <= NOTHING || (kind == S_IFDIR) != move.is_folder) return;  // a move before has cleared it
  const std::vector<std::string> folders = go_through(move, [&](const Place& place) { files_.unlink(place); });
  for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
    const Place place = place_at(*folder);
    if (::unlinkat(place.folder(), place.name(), AT_REMOVEDIR) != 0) throw os_error(errno, *folder);
  }
}

const StagedMoves::Folder& StagedMoves::folder_above(const std::string& live_path) {
  const std::string parent = directory_of(live_path);
  const auto [known, is_new] = folders_.try_emplace(parent);
  if (is_new) {
    known->second.path = parent;
    while (kind_at(known->second.path) != S_IFDIR) known->second.path = directory_of(known->second.path);
    known->second.reachable = reaches_(root_.path(), known->second.path);
  }
  return known->second;
}

std::string StagedMoves::copied_into(const std::string& folder, const std::string& file_path) {
  // Never the name of another process, whose transition may begin before this is gone.
  const std::string name = ".transition_move" + std::to_string(copies_.size()) + "." + std::to_string(::getpid()) + ".tmp";
  copies_.push_back(join_path(folder, name));
  copy_file(staged_.place(file_path, LocalFiles::Parents::Leave), place_at(copies_.back()));
  return copies_.back();
}

Place StagedMoves::place_at(const std::string& local_path) const {
  const std::string folder_path = directory_of(local_path);
  auto folder = root_.folder(in_root(root_, folder_path));
  if (!folder) throw os_error(errno, folder_path);
  return {std::move(folder), local_path};
}

}  // namespace brackenfen::sync
