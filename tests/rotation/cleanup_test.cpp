#include "sync/rotation/cleanup.hpp"

#include <gmock/gmock.h>

#include <filesystem>

#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace testing;

TEST(CleanUp, deletesWhatNoRotationKeepsAndNothingElse) {
  const TemporaryDirectory directory, outside;
  const std::string precious = outside.write("precious/data.arrow", "x");
  const std::vector<std::string> kept = {"features/u/kept.arrow",
                                         "features/spelled/oddly.arrow",
                                         "features/u/.hidden/deep/file",
                                         ".features/file",
                                         "manifest.json",
                                         "notes/mine.txt",
                                         "featuresque/file",
                                         "models/features/file",
                                         "found_strategies"};
  const std::vector<std::string> doomed = {"features/old.arrow",     "features/u/.hidden_file",     "features/u/old.arrow.tmp",
                                           "universe_masks/m.arrow", "found_signals/a/b/pnl.arrow", "useful_signals/deep/er/still/x"};
  for (const std::string& path : kept) directory.write(path, "x");
  for (const std::string& path : doomed) directory.write(path, "x");
  const auto link = [&](const std::string& target, const char* name) { std::filesystem::create_symlink(target, directory / name); };
  link(outside.path() + "/precious", "features/linked_folder");
  link(precious, "features/linked_file.arrow");
  link("nowhere", "features/dangling.arrow");
  link(precious, "features/u/kept_link.arrow");
  link(outside.path() + "/precious", "named_universes");

  delete_files_not_kept(Files::real(), directory.path(),
                        {"features/u/kept.arrow", "features//spelled/./oddly.arrow", "../features/climbs", "features/u/kept_link.arrow"});

  for (const std::string& path : kept) EXPECT_TRUE(directory.contains(path)) << path;
  for (const std::string& path : doomed) EXPECT_FALSE(directory.contains(path)) << path;
  EXPECT_TRUE(std::filesystem::is_symlink(directory / "features/linked_folder"));
  EXPECT_TRUE(std::filesystem::is_symlink(directory / "features/u/kept_link.arrow"));
  EXPECT_FALSE(std::filesystem::is_symlink(directory / "features/linked_file.arrow"));
  EXPECT_FALSE(std::filesystem::is_symlink(directory / "features/dangling.arrow"));
  EXPECT_THAT(outside.files(), ElementsAre("precious/data.arrow"));
  EXPECT_TRUE(std::filesystem::is_directory(directory / "useful_signals/deep/er/still")) << "empty folders stay";
}

TEST(CleanUp, vouchesOnlyForFoldersWithoutStagingFiles) {
  const auto vouched_beside = [](const char* path) {
    const TemporaryDirectory directory;
    directory.write(path, "x");
    return delete_files_not_kept(Files::real(), directory.path(), {path});
  };
  for (const char* path : {"features/a.arrow.tmp", "features/u/folder.tmp/a", "useful_signals/u/.hidden/a.tmp"})
    EXPECT_THAT(vouched_beside(path), IsEmpty()) << path;
  EXPECT_THAT(vouched_beside("features/.a.arrow"), SizeIs(6));
  EXPECT_THAT(delete_files_not_kept(Files::real(), "~/data", {}), IsEmpty()) << "staging files lie below the home directory";
}

}  // namespace
}  // namespace brackenfen::sync
