// Directories, descriptors and digests, against real files.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
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

TEST_F(Files, makeDirectoriesCreatesParentsAndAcceptsWhatIsThere) {
  make_directories(at("a/b/c/"));
  EXPECT_TRUE(is_directory(at("a/b/c")));
  make_directories(at("a/b"));
  root_.write("file", "");
  EXPECT_TRUE(path_exists(at("file")));
  EXPECT_FALSE(is_directory(at("file")));
  EXPECT_THROW(make_directories(at("file")), Error);
  EXPECT_THROW(make_directories(at("file/below")), Error);
}

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
  EXPECT_FALSE(read_file("/proc/self/stat").empty());  // its size reads as 0
}

TEST_F(Files, failuresNameThePath) {
  EXPECT_EQ(failure_of([&] { return read_file(at("missing")); }),
            "FileNotFoundError: [Errno 2] No such file or directory: '" + at("missing") + "'");
  EXPECT_THROW((void)read_file(root_.path()), Error);
  EXPECT_THROW((void)read_file(root_.write("file", "content") + std::string(1, '\0') + "x"), ValueError);
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
  kept.reset();
  EXPECT_EQ(kept.hex_digest(), _sha256(""));
}

}  // namespace
}  // namespace brackenfen::sync
