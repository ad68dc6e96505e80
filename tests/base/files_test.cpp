// Directories and descriptors, against real files.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/path_below.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/files/root_directory.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

class Files : public ::testing::Test {
 protected:
  [[nodiscard]] std::string at(std::string_view name) const { return root_ / name; }

  TemporaryDirectory root_;
};

TEST_F(Files, failuresNameThePath) {
  EXPECT_EQ(failure_of([&] { return read_file(at("missing")); }),
            "FileNotFoundError: [Errno 2] No such file or directory: '" + at("missing") + "'");
  EXPECT_THROW((void)read_file(root_.path()), Error);
  EXPECT_THROW(make_directories(root_.write("file", "")), Error);
  EXPECT_EQ(path_below("/", "/a/b"), "a/b");
  EXPECT_THROW((void)read_file(root_.write("file", "content") + std::string(1, '\0') + "x"), ValueError);
}

TEST_F(Files, aLeaseOfAnotherIsWaitedFor) {
  const std::string path = root_.write("file", "content");
  for (const bool writes : {false, true}) {
    const Descriptor leased = open_file(path, O_RDWR);
    ASSERT_EQ(::fcntl(leased.get(), F_SETSIG, SIGURG), 0);  // which nobody minds
    ASSERT_EQ(::fcntl(leased.get(), F_SETLEASE, F_WRLCK), 0);
    const std::jthread file_server([&] {
      while (::fcntl(leased.get(), F_GETLEASE) == F_WRLCK) std::this_thread::yield();
      ::fcntl(leased.get(), F_SETLEASE, F_UNLCK);
    });
    writes ? (void)open_own_file(path, O_RDWR) : (void)read_file(path);
  }
}

TEST_F(Files, foldersAreOpenedWithoutALinkOnTheWay) {
  root_.write("a/b/file", "");
  root_.write("elsewhere/b/file", "");
  std::filesystem::create_directory_symlink("elsewhere", at("link"));
  const Descriptor root = open_file(root_.path(), O_PATH | O_DIRECTORY);
  const std::pair<const char*, int> rows[] = {{"", 0},           {"a", 0},         {"a/b", 0},           {"link", ELOOP},
                                              {"link/b", ELOOP}, {"gone", ENOENT}, {"a/gone/b", ENOENT}, {"a/b/file", ENOTDIR}};
  for (const FolderWalk walk : {FolderWalk::Kernel, FolderWalk::ByName}) {
    for (const auto& [path, reason] : rows) {
      const Descriptor folder(open_beneath(root.get(), path, O_PATH | O_DIRECTORY, walk));
      EXPECT_EQ(folder ? 0 : errno, reason) << path;
    }
  }
  const RootDirectory directory(root_.path());
  ASSERT_TRUE(directory.make_folder("a/new/deep"));
  EXPECT_TRUE(is_directory(at("a/new/deep")));
  EXPECT_THROW((void)directory.make_folder("link/new"), Error);
  EXPECT_FALSE(path_exists(at("elsewhere/new")));
}

TEST_F(Files, aPathOfAMillionPartsIsResolvedWithoutALookAtEach) {
  std::string path = at("gone");
  for (int part = 0; part < 1'000'000; ++part) path += "/a";
  EXPECT_TRUE(real_path(path) == path);
}

}  // namespace
}  // namespace brackenfen::sync
