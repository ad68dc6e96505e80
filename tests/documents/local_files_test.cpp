#include "sync/documents/local_files.hpp"

#include <filesystem>

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

TEST(LocalFiles, answerAsTheFullResolutionDoesHoweverManyFoldersAreOpen) {
  const TemporaryDirectory scratch;
  std::vector<std::string> paths = {"a/b/one", "a//b/one", "inside/one", "self/a/b/one", "a/linked", "gone/file", "a/b", "a/b/one/x"};
  scratch.write("data/a/b/one", "one");
  link(scratch, "data/inside", "a/b");
  link(scratch, "data/a/linked", "b/one");
  link(scratch, "data/self", scratch / "data");
  for (int folder = 0; folder < 200; ++folder) {  // more than stay open, so that places are taken over
    paths.push_back("many/" + std::to_string(folder) + "/file");
    scratch.write("data/" + paths.back(), "");
  }
  LocalFiles files(scratch / "data");
  for (int round = 0; round < 2; ++round) {
    for (const std::string& path : paths) {
      const std::string full_path = _manifest_local_path(scratch / "data", path);
      EXPECT_EQ(files.local_path(path), full_path);
      const std::optional<FileStat> found = files.stat(path), full = Files::real().stat(full_path);
      EXPECT_EQ(found.has_value(), full.has_value()) << path;
      EXPECT_EQ(found.value_or(FileStat{}).inode, full.value_or(FileStat{}).inode) << path;
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
