#include "sync/documents/local_files.hpp"

#include <filesystem>

#include "sync/base/files/paths.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/own_files.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

void link(const TemporaryDirectory& directory, const std::string& name, const std::string& target) {
  std::filesystem::create_symlink(target, directory / name);
}

TEST(OwnFiles, areKnownInEverySpelling) {
  const TemporaryDirectory scratch;
  link(scratch, "self", ".");
  link(scratch, "state", "feature-rotation-state.json");
  OwnFiles own_files(scratch.path());
  for (const std::string path :
       {"manifest.json", "./manifest.json", "manifest.json/x", ".\\.sync_flock", "self/.consumer_count", "self//self/shuffle_seed.enc",
        "state", ".transition_era7.tmp/features/a", "features/a.arrow.tmp", "features.tmp/a"}) {
    EXPECT_THROW(static_cast<void>(own_files.refuse(path)), Error) << path;
    EXPECT_THROW(static_cast<void>(LocalFiles(scratch.path()).place(path)), Error) << path;
    const bool by_link = path.starts_with("self") || path == "state";
    EXPECT_EQ(failure_of([&] {
                return own_files.refuse_in(Document{{path, 1}}), "";
              }),
              by_link ? "" : "ManifestError: Manifest lists a file of the library's own: " + path);
  }
  for (const std::string path : {"signals_index.json", "functions.json", "features/manifest.json", "Manifest.json", "manifest.json.",
                                 "../x", ".transition_era7", "manifest.json2", "a.tmpl", "a.TMP"}) {
    EXPECT_EQ(failure_of([&] { return own_files.refuse_in(Document{{path, 1}}), own_files.refuse(path), ""; }), "") << path;
  }
  // Where one file answers to several spellings, each of them names it.
  scratch.write(".sync_flock", "");
  std::filesystem::create_hard_link(scratch / ".sync_flock", scratch / ".SYNC_FLOCK");
  for (const std::string path : {"Manifest.json", "MANIFEST.JSON./x", "a.Tmp"}) {
    EXPECT_THROW(OwnFiles(scratch.path()).refuse(path), Error) << path;
  }
}

/// All that is told of a file, or the text of a refusal.
template <typename LocalPath, typename Stat>
std::string answer(LocalPath local_path, Stat stat) {
  try {
    const std::optional<FileStat> found = stat();
    const std::string path = local_path();
    if (!found) return path + " missing";
    return path + json_of(List{found->size_bytes, found->mtime_ns, found->ctime_ns, found->inode, found->is_directory});
  } catch (const Error& error) {
    return error.text();
  }
}

TEST(LocalFiles, answerAsTheFullResolutionDoes) {
  const TemporaryDirectory scratch;
  std::vector<std::string> paths = {"top",           "a/b/one",   "a/b/two",    "a/b",          "a//b/one",     "gone",   "gone/file",
                                    "a/gone/file",   "top/file",  "inside/one", "a/linked",     "out/file",     "a/out",  "dangling",
                                    "loop/file",     "../x",      "/etc",       "a/b/../b/one", "self/a/b/one", "é/file", "inside/gone",
                                    "gone/out/file", "a\\b\\two", "",           "loop"};
  paths.insert(paths.end(), {std::string(300, 'x'), std::string(300, 'x') + "/y"});
  for (const char* file : {"top", "a/b/one", "a/b/two", "é/file"}) scratch.write("data/" + std::string(file), file);
  scratch.write("outside/file", "");
  link(scratch, "data/inside", "a/b");
  link(scratch, "data/a/linked", "b/two");
  link(scratch, "data/out", "../outside");
  link(scratch, "data/a/out", scratch / "outside/file");
  link(scratch, "data/dangling", "nowhere/at/all");
  link(scratch, "data/loop", "loop");
  link(scratch, "data/self", scratch / "data");
  link(scratch, "way-in", "data");
  for (int folder = 0; folder < 200; ++folder) {  // more than stay open, so that places are taken over
    paths.push_back("many/" + std::to_string(folder) + "/file");
    scratch.write("data/" + paths.back(), "");
  }

  for (const std::string& data_dir : {scratch / "data", scratch / "way-in", scratch / "nothing-here"}) {
    LocalFiles files(data_dir);
    for (int round = 0; round < 2; ++round) {
      for (const std::string& path : paths) {
        const auto full_path = [&] { return _manifest_local_path(data_dir, path); };
        const auto full_stat = [&] { return path_exists(full_path()) ? Files::real().stat(full_path()) : std::nullopt; };
        EXPECT_EQ(answer([&] { return files.local_path(path); }, [&] { return files.stat(path); }), answer(full_path, full_stat)) << path;
      }
    }
  }
}

TEST(LocalFiles, seeAFileThatComesAndGoes) {
  const TemporaryDirectory scratch;
  LocalFiles files(scratch.path());
  EXPECT_FALSE(files.stat("new/file"));
  scratch.write("new/file", "12345");
  EXPECT_EQ(files.stat("new/file")->size_bytes, 5);
  std::filesystem::remove(scratch / "new/file");
  EXPECT_FALSE(files.stat("new/file"));
  link(scratch, "new/file", "/etc/passwd");
  EXPECT_EQ(failure_of([&] { return files.stat("new/file"); }), "ManifestError: Manifest file path escapes data directory: 'new/file'");
}

}  // namespace
}  // namespace brackenfen::sync
