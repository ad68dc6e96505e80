// The staging file by itself: what is held back, and going back to where a response began.
#include "sync/engine/staging_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/failures.hpp"
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
      directory.write("file.tmp", "prefix");
    }
  }
}

TEST_F(StagingFileTest, whatALaterDownloadHasTakenOverIsNotTouchedAnyMore) {
  const struct {
    const char* name;
    std::function<void(StagingFile&)> run;
  } touches[] = {
      {"another attempt", [](StagingFile& file) { file.open(false); }},
      {"a write", [](StagingFile& file) { file.flush(); }},
      {"going back", [](StagingFile& file) { file.roll_back(); }},
      {"the rest of a 200", [](StagingFile& file) { file.keep_whole(); }},
      {"landing", [this](StagingFile& file) { file.land(Files::real(), directory / "file"); }},
  };
  for (const auto& touch : touches) {
    for (const bool landed : {false, true}) {
      SCOPED_TRACE(std::string(touch.name) + (landed ? ", landed" : ", under way"));
      directory.write("file", "before");
      directory.write("file.tmp", "prefix");
      StagingFile left_behind{directory / "file.tmp", clock}, later{directory / "file.tmp", clock};
      left_behind.open();
      left_behind.expect(1'000'000, 1'000'000);
      later.open();
      (void)left_behind.begin(200);
      left_behind.accept("x");
      EXPECT_EQ(later.size_bytes(), 6) << "resumes where the other one was";
      if (landed) later.land(Files::real(), directory / "file");
      left_behind.clear();
      EXPECT_THAT(failure_of([&] { touch.run(left_behind); }), testing::StartsWith("FileNotFoundError: "));
      EXPECT_EQ(directory.read(landed ? "file" : "file.tmp"), "prefix");
      EXPECT_EQ(directory.read("file"), landed ? "prefix" : "before");
    }
  }
}

}  // namespace
}  // namespace brackenfen::sync
