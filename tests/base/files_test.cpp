// Directories, descriptors and digests, against real files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/file_text.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/base/files/sha256.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

class Files : public ::testing::Test {
 protected:
  [[nodiscard]] std::string at(std::string_view name) const { return root_ / name; }

  TemporaryDirectory root_;
};

TEST_F(Files, descriptorsCarryWholeContents) {
  std::string content(300'000, 'x');
  content[70'000] = '\0';
  {
    Descriptor file = open_file(at("file"), O_CREAT | O_WRONLY);
    EXPECT_NE(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
    write_all(file, content, at("file"));
    file.close();
    EXPECT_FALSE(file);
  }
  EXPECT_EQ(read_file(at("file")), content);
  EXPECT_EQ(FileText(at("file")).view(), content);
  EXPECT_FALSE(read_file("/proc/self/stat").empty());  // its size reads as 0
  EXPECT_EQ(FileText("/proc/cpuinfo").view().size(), read_file("/proc/cpuinfo").size());
}

TEST_F(Files, failuresNameThePath) {
  EXPECT_EQ(failure_of([&] { return read_file(at("missing")); }),
            "FileNotFoundError: [Errno 2] No such file or directory: '" + at("missing") + "'");
  EXPECT_THROW((void)read_file(root_.path()), Error);
  EXPECT_THROW(make_directories(root_.write("file", "")), Error);
  EXPECT_THROW((void)read_file(root_.write("file", "content") + std::string(1, '\0') + "x"), ValueError);
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

TEST_F(Files, whatIsNoFileOfOnesOwnGivesWayAndIsNeverWaitedFor) {
  const std::string foreign = root_.write("foreign", "precious");
  const std::pair<const char*, std::function<void(const std::string&)>> rows[] = {
      {"nothing", [](const std::string&) {}},
      {"a link", [&](const std::string& path) { std::filesystem::create_symlink(foreign, path); }},
      {"a link to nothing", [&](const std::string& path) { std::filesystem::create_symlink(at("made"), path); }},
      {"a further name", [&](const std::string& path) { std::filesystem::create_hard_link(foreign, path); }},
      {"a pipe", [](const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }},
  };
  for (const auto& [name, put] : rows) {
    SCOPED_TRACE(name);
    const std::string path = at("own");
    put(path);
    write_all(open_own_file(path, O_WRONLY), "mine", path);
    EXPECT_EQ(root_.read("own"), "mine");
    EXPECT_EQ(root_.read("foreign"), "precious");
    EXPECT_FALSE(path_exists(at("made")));
    std::filesystem::remove(path);
    put(path);
    if (std::string_view(name) == "a pipe") {
      EXPECT_EQ(failure_of([&] { return read_file(path); }), "OSError: [Errno 22] Invalid argument: '" + path + "'");
    }
    std::filesystem::remove(path);
  }
  EXPECT_EQ(failure_of([&] { return read_file(foreign, 7); }), "OSError: [Errno 27] File too large: '" + foreign + "'");
  EXPECT_EQ(read_file(foreign, 8), "precious");
  make_directories(at("own"));
  EXPECT_EQ(failure_of([&] { return open_own_file(at("own"), O_WRONLY); }),
            "IsADirectoryError: [Errno 21] Is a directory: '" + at("own") + "'");
}

TEST(Sha256, givesThePublishedDigestsAndGoesBackToAState) {
  EXPECT_EQ(_sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(_sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  Sha256 digest;
  digest.update("a");
  Sha256 kept;
  kept.assign(digest);
  digest.update("x");
  EXPECT_NE(digest.hex_digest(), _sha256("a"));
  kept.update("bc");
  EXPECT_EQ(kept.hex_digest(), _sha256("abc"));
  for (int digest_of_nothing = 0; digest_of_nothing < 2; ++digest_of_nothing) {
    kept.reset();
    EXPECT_EQ(kept.hex_digest(), _sha256(""));
  }
}

}  // namespace
}  // namespace brackenfen::sync
