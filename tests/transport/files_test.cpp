// Whole files, sync-progress.json and the clean-up of temporary files.

#include "sync/transport/files.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>

#include "sync/base/files/sha256.hpp"
#include "sync/neighbours/sync_progress.hpp"
#include "sync/transport/progress.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/fault_files.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace testing;
using Call = FaultFiles::Call;

class FilesTest : public testing::Test {
 protected:
  void write_progress(const Document& files_to_download, const Value& era_number = 7, const Value& version = "12") {
    _write_sync_progress_json(files_, clock_, SyncProgress::builtin(), directory_.path(), era_number, version, files_to_download);
  }

  TemporaryDirectory directory_;
  FaultFiles files_;
  FakeClock clock_;
};

TEST_F(FilesTest, writesWholeFilesWithTheirParents) {
  _atomic_write(files_, clock_, directory_ / "a/b/c", "old");
  _atomic_write(files_, clock_, directory_ / "a/b/c", std::string_view("new\0", 4));
  EXPECT_EQ(directory_.read("a/b/c"), std::string("new\0", 4));
  EXPECT_THAT(directory_.files(), ElementsAre("a/b/c"));
  EXPECT_THAT(files_.calls(Call::WriteNew).at(0), MatchesRegex(directory_ / "a/b/c\\.[0-9]+\\.[0-9]+\\.[0-9]+\\.tmp"));
}

TEST_F(FilesTest, hashesFilesOfAnySizeInBlocksOfAnySize) {
  const std::string content(1'300'007, 'q');
  const std::string path = directory_.write("file", content);
  for (const std::int64_t chunk_bytes : {SYNC_HASH_FILE_CHUNK_BYTES, std::int64_t{1000}, std::int64_t{0}})
    EXPECT_EQ(_sha256_file(path, chunk_bytes), _sha256(content));
  EXPECT_EQ(_sha256_file(directory_.write("empty", "")), _sha256(""));
  EXPECT_THROW(static_cast<void>(_sha256_file(directory_.path())), Error);
  EXPECT_EQ(_sha256_file(path), _sha256(content)) << "after a failure";
}

TEST_F(FilesTest, showsWhatAPassDownloads) {
  write_progress(
      {{"b.arrow",
        Document{{"kind", "feature"}, {"platform", "linux"}, {"size_bytes", Value::integer_from_decimal("99999999999999999999")}}},
       {"skipped", "no entry"},
       {"a.arrow", Document{{"kind", nullptr}, {"size_bytes", true}}},
       {"c.arrow", Document{{"size_bytes", INT64_MAX}}}});
  EXPECT_EQ(directory_.read("sync-progress.json"),
            R"({"era_number": 7, "files": {"a.arrow": {"kind": "", "platform": ""}, )"
            R"("b.arrow": {"kind": "feature", "platform": "linux", "size_bytes": 99999999999999999999}, )"
            R"("c.arrow": {"kind": "", "platform": "", "size_bytes": 9223372036854775807}}, "phase": "syncing", )"
            R"("total_bytes": 109223372036854775806, "total_bytes_known": false, "unknown_size_files": ["a.arrow"], )"
            R"("updated_at": 1700000000.5, "version": 12})");
  write_progress({}, nullptr, "");
  EXPECT_EQ(directory_.read("sync-progress.json"),
            R"({"era_number": 0, "files": {}, "phase": "syncing", "total_bytes": 0, "total_bytes_known": true, )"
            R"("unknown_size_files": [], "updated_at": 1700000000.5, "version": 0})");
  std::filesystem::remove_all(directory_.path());
  EXPECT_THAT(failure_of([&] { write_progress({}); }), StartsWith("FileNotFoundError"));
  EXPECT_FALSE(std::filesystem::exists(directory_.path())) << "a directory that was removed stays so";
}

TEST_F(FilesTest, cleansTemporaryFilesUpButNeverThroughLinks) {
  TemporaryDirectory elsewhere;
  elsewhere.write("precious.tmp", "x");
  for (const char* name : {"a.arrow.tmp", "b.arrow.tmp", "deep/.hidden/c.tmp", "deep/kept.tmp", ".transition_era5.tmp/d.tmp",
                           "file.tmp.txt", "deep/read/e.tmp"})
    directory_.write(name, "x");
  std::filesystem::create_directory_symlink(elsewhere.path(), directory_ / "outside");
  std::filesystem::create_directory_symlink(elsewhere.path(), directory_ / "link.tmp");
  std::filesystem::create_directory_symlink(directory_.path(), elsewhere / "data");
  const RecordingLog log;
  _cleanup_sync_tmp_files(files_, elsewhere / "data", {"a.arrow", "../unsafe", 5, "deep//kept", nullptr}, {"deep/read"});
  EXPECT_THAT(directory_.files(), ElementsAre("a.arrow.tmp", "deep/kept.tmp", "deep/read/e.tmp", "file.tmp.txt", "outside"));
  EXPECT_EQ(elsewhere.read("precious.tmp"), "x");
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre(MatchesRegex("best-effort tmp cleanup failed for .*/.transition_era5.tmp: .*")));
  EXPECT_THAT(log.entries(), SizeIs(1));
}

TEST_F(FilesTest, cleansNothingBehindAFolderThatBecomesALinkMeanwhile) {
  const TemporaryDirectory elsewhere;
  elsewhere.write("inner/precious.tmp", "x");
  for (const char* name : {"deep/a.tmp", "deep/inner/precious.tmp"}) directory_.write(name, "x");
  files_.before(Call::Unlink, [&] {
    std::filesystem::rename(directory_ / "deep", directory_ / "moved");
    std::filesystem::create_directory_symlink(elsewhere.path(), directory_ / "deep");
  });
  _cleanup_sync_tmp_files(files_, directory_.path());
  EXPECT_THAT(elsewhere.files(), ElementsAre("inner/precious.tmp"));
  EXPECT_FALSE(directory_.contains("moved/a.tmp"));
}

TEST_F(FilesTest, goesOnCleaningAfterAFailure) {
  for (const char* name : {"a.tmp", "b.tmp", "c.tmp"}) directory_.write(name, "x");
  std::filesystem::create_directories(directory_ / "folder/c.tmp");
  const RecordingLog log;
  _remove_manifest_tmp_file(files_, directory_.path(), "../b");
  _remove_manifest_tmp_file(files_, directory_.path(), "folder/c");
  EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre(MatchesRegex("Failed to remove stale sync tmp file .*/c.tmp: .Errno 21. .*")));
  std::filesystem::remove(directory_ / "folder/c.tmp");
  files_.fail(Call::Unlink, 2, EIO);
  _cleanup_sync_tmp_files(files_, directory_.path());
  EXPECT_THAT(directory_.files(), SizeIs(1));
  _cleanup_sync_tmp_files(files_, directory_ / "missing");
  write_progress({});
  files_.fail(Call::Unlink, 1, EACCES);
  for (int time = 0; time < 3; ++time) _remove_sync_progress_json(files_, directory_.path());
  EXPECT_FALSE(directory_.contains("sync-progress.json"));
  EXPECT_THAT(log.messages(LogLevel::Debug),
              ElementsAre(MatchesRegex("best-effort tmp cleanup failed for .*: .Errno 5. .*"),
                          MatchesRegex("best-effort tmp scan failed for .*/missing: .Errno 2. .*"),
                          MatchesRegex("best-effort sync progress cleanup failed for .*/sync-progress.json: .Errno 13. .*")));
}

}  // namespace
}  // namespace brackenfen::sync
