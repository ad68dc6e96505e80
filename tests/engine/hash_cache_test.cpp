#include "sync/engine/hash_cache.hpp"

#include "sync/base/files/descriptor.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/fault_files.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

class HashCacheTest : public testing::Test {
 protected:
  HashCacheTest() {
    files.answer_stat([this] { return present; });
  }

  const TemporaryDirectory directory;
  std::optional<FileStat> present = FileStat{.size_bytes = 5, .mtime_ns = 10, .ctime_ns = 20, .inode = 30};
  FaultFiles files;
  HashCache cache{files, Clock::real(), directory / SYNC_HASH_CACHE_FILENAME};

  bool hits(std::string_view path = "a", std::string_view sha = "aa") {
    return cache._cached_local_sha(path, "local", sha) == std::string(sha);
  }
};

TEST_F(HashCacheTest, trustsAFileUntilItsStatOrDigestDiffers) {
  cache._remember_local_sha("a", "local", "aa");
  EXPECT_TRUE(hits());
  EXPECT_FALSE(hits("b"));
  EXPECT_FALSE(hits("a", "bb"));
  EXPECT_FALSE(cache._cached_local_sha("a", "local", ""));
  const FileStat known = *present;
  for (std::int64_t FileStat::*field : {&FileStat::size_bytes, &FileStat::mtime_ns, &FileStat::ctime_ns, &FileStat::inode}) {
    present = known;
    ++((*present).*field);
    EXPECT_FALSE(hits());
  }
  present = std::nullopt;
  EXPECT_FALSE(hits());
  EXPECT_TRUE(cache.holds("a", known, "aa"));
}

TEST_F(HashCacheTest, viewsStayAsTheyWereTaken) {
  cache._remember_local_sha("a", "local", "aa");
  const HashCache::View before = cache.view();
  cache._remember_local_sha("a", "local", "bb");
  for (int number = 0; number < 100; ++number) cache._remember_local_sha(std::to_string(number), "local", "aa");
  EXPECT_TRUE(before.holds("a", *present, "aa"));
  EXPECT_FALSE(before.holds("99", *present, "aa"));
  for (int number = 0; number < 100; ++number) EXPECT_TRUE(hits(std::to_string(number))) << number;
  EXPECT_TRUE(cache.view().holds("a", *present, "bb"));
}

TEST_F(HashCacheTest, remembersOnlyWhatStayedOneFileAndUnchangedWhileItWasRead) {
  const FileStat before = *present;
  for (std::int64_t FileStat::*field :
       {&FileStat::size_bytes, &FileStat::mtime_ns, &FileStat::ctime_ns, &FileStat::inode, &FileStat::device}) {
    present = before;
    ++((*present).*field);
    cache.remember_if_unchanged("a", "local", "aa", before);
    EXPECT_EQ(stat_of_landed(files, "local", before).has_value(), field == &FileStat::ctime_ns) << "a rename changes the ctime alone";
  }
  cache.remember_if_unchanged("a", "local", "aa", std::nullopt);
  EXPECT_TRUE(cache.entries().empty());
  cache.remember_if_unchanged("a", "local", "aa", present);
  EXPECT_TRUE(hits());
}

TEST_F(HashCacheTest, isDirtyAndWrittenOnlyAfterAChange) {
  cache._remember_local_sha("é", "local", "");
  EXPECT_FALSE(cache.dirty());
  cache._persist_hash_cache();
  EXPECT_FALSE(directory.contains(SYNC_HASH_CACHE_FILENAME));
  cache._remember_local_sha("é", "local", "aa");
  EXPECT_TRUE(cache.dirty());
  cache._persist_hash_cache();
  EXPECT_FALSE(cache.dirty());
  EXPECT_EQ(read_file(cache.path()),
            R"({"files": {"\u00e9": {"ctime_ns": 20, "inode": 30, "mtime_ns": 10, "sha256": "aa", "size_bytes": 5}}, "version": 1})");
  cache._remember_local_sha("é", "local", "aa");
  EXPECT_FALSE(cache.dirty());
  present->mtime_ns = 11;
  cache._remember_local_sha("é", "local", "aa");
  EXPECT_TRUE(cache.dirty());
  present = std::nullopt;
  cache._remember_local_sha("b", "local", "bb");
  EXPECT_EQ(cache.entries().size(), 1U);
}

TEST_F(HashCacheTest, keepsUnusualEntriesAsTheyStand) {
  const Document plain = document(R"({"sha256": "aa", "size_bytes": 5, "mtime_ns": 10, "ctime_ns": 20, "inode": 30})");
  cache.set_entries({{"text", plain.with("size_bytes", "5").with("mtime_ns", 10.9)},
                     {"extra", plain.with("note", List{1})},
                     {"reals", plain.with("size_bytes", 5.0)},
                     {"infinite", plain.with("size_bytes", *parse_json("Infinity").if_real())},
                     {"null", plain.with("size_bytes", nullptr)}});
  for (const char* path : {"text", "extra", "reals"}) EXPECT_TRUE(hits(path)) << path;
  for (const char* path : {"infinite", "null"}) EXPECT_FALSE(hits(path)) << path;
  cache._remember_local_sha("reals", "local", "aa");  // equal, if written otherwise
  EXPECT_FALSE(cache.dirty());
  EXPECT_EQ(json_of(cache.entries().get("reals")), json_of(plain.with("size_bytes", 5.0)));
}

TEST_F(HashCacheTest, loadsABadFileAsEmpty) {
  const std::tuple<const char*, const char*, std::size_t> rows[] = {
      {R"({"version": 1, "files": {"a": {}, "b": 5}})", R"({"a": {}})", 0},
      {R"({"files": {"z": {}}, "version": 1, "files": {"a": {"x": 1, "x": 2}, "b": {}, "c": {}, "b": 5, "c": 5, "c": {"y": {}}}})",
       R"({"a": {"x": 2}, "c": {"y": {}}})", 0},
      {R"({"version": 1, "files": {"a")", "{}", 1},
  };
  EXPECT_TRUE(HashCache::_load_hash_cache(cache.path()).empty());
  for (const auto& [content, entries, warned] : rows) {
    const RecordingLog log;
    EXPECT_EQ(json_of(HashCache::_load_hash_cache(directory.write(SYNC_HASH_CACHE_FILENAME, content))), entries) << content;
    ASSERT_EQ(log.messages(LogLevel::Warning).size(), warned) << content;
    for (const std::string& warning : log.messages(LogLevel::Warning))
      EXPECT_TRUE(warning.starts_with("Ignoring unreadable sync hash cache: "));
  }
}

TEST_F(HashCacheTest, triesAFailedWriteAgain) {
  cache._remember_local_sha("a", "local", "aa");
  files.fail(FaultFiles::Call::WriteNew, 1, ENOSPC);
  const RecordingLog log;
  cache._persist_hash_cache();
  EXPECT_TRUE(log.messages(LogLevel::Warning).at(0).starts_with("Failed to persist sync hash cache: [Errno 28]"));
  EXPECT_TRUE(cache.dirty());
  cache._persist_hash_cache();
  EXPECT_FALSE(cache.dirty());
  EXPECT_EQ(HashCache::_load_hash_cache(cache.path()), cache.entries());
}

}  // namespace
}  // namespace brackenfen::sync
