// The staging file by itself: what is held back, and going back to where a response began.
#include "sync/engine/staging_file.hpp"

#include <gtest/gtest.h>

#include "tests/support/fake_clock.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

const std::string LARGE(600'000, 'x');  // more than is held back

class StagingFileTest : public testing::Test {
 protected:
  TemporaryDirectory directory;
  FakeClock clock;
  StagingFile staging{directory / "file.tmp", clock};

  [[nodiscard]] std::string content() { return directory.read("file.tmp"); }
  void respond(int status, std::string_view body) {
    (void)staging.begin(status);
    staging.accept(body);
  }
};

TEST_F(StagingFileTest, holdsLittleBackAndNotForLong) {
  staging.open();
  staging.expect(std::nullopt, 1'000'000);
  respond(200, "first");
  EXPECT_EQ(content(), "");
  clock.advance(0.1);
  staging.accept(" second");
  EXPECT_EQ(content(), "first second");
  staging.accept(LARGE);
  staging.accept(LARGE);
  EXPECT_GE(content().size(), LARGE.size());
  staging.flush();
  EXPECT_EQ(staging.hex_digest(), _sha256("first second" + LARGE + LARGE));
}

TEST_F(StagingFileTest, goesBackToWhereAResponseBeganHoweverMuchOfItWasWritten) {
  directory.write("file.tmp", "prefix");
  for (const int status : {200, 206}) {
    for (const std::string& body : {std::string("short"), LARGE}) {
      SCOPED_TRACE(std::to_string(status) + ", " + std::to_string(body.size()) + " bytes");
      staging.open();
      const std::string before = content();
      staging.expect(1'000'000, 1'000'000);
      respond(status, body);
      staging.roll_back();
      EXPECT_EQ(staging.size_bytes(), std::ssize(before));
      EXPECT_EQ(content().size(), before.size());
      // The digest is that of the bytes which lie there, even where a 200 went over them.
      EXPECT_EQ(staging.hex_digest(), _sha256(content()));
      staging.close();
      directory.write("file.tmp", "prefix");
    }
  }
}

}  // namespace
}  // namespace brackenfen::sync
