#include "sync/engine/hash_cache.hpp"

#include <thread>

#include "sync/base/descriptor.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

/// Files whose stat is data and whose writes can fail.
class FakeFiles final : public Files {
 public:
  void rename(const std::string& from, const std::string& to) override { Files::real().rename(from, to); }
  void unlink(const std::string& path) override { Files::real().unlink(path); }
  void write_new(const std::string& path, std::string_view data) override {
    if (full) throw os_error(ENOSPC, path);
    Files::real().write_new(path, data);
  }
  std::optional<FileStat> stat(const std::string&) override { return present; }
  std::int64_t free_bytes(const std::string&) override { return 0; }
  void set_mtime(const std::string&, std::int64_t) override {}

  std::optional<FileStat> present = FileStat{.size_bytes = 5, .mtime_ns = 10, .ctime_ns = 20, .inode = 30};
  bool full = false;
};

class HashCacheTest : public testing::Test {
 protected:
  const TemporaryDirectory directory;
  FakeFiles files;
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
  const FileStat known = *files.present;
  for (std::int64_t FileStat::*field : {&FileStat::size_bytes, &FileStat::mtime_ns, &FileStat::ctime_ns, &FileStat::inode}) {
    files.present = known;
    ++((*files.present).*field);
    EXPECT_FALSE(hits());
  }
  files.present = std::nullopt;
  EXPECT_FALSE(hits());
  EXPECT_TRUE(cache.holds("a", known, "aa"));
}

TEST_F(HashCacheTest, isDirtyOnlyAfterAChange) {
  cache._remember_local_sha("a", "local", "");
  EXPECT_FALSE(cache.dirty());
  cache._remember_local_sha("a", "local", "aa");
  EXPECT_TRUE(cache.dirty());
  cache._persist_hash_cache();
  EXPECT_FALSE(cache.dirty());
  cache._remember_local_sha("a", "local", "aa");
  EXPECT_FALSE(cache.dirty());
  files.present->mtime_ns = 11;
  cache._remember_local_sha("a", "local", "aa");
  EXPECT_TRUE(cache.dirty());
  files.present = std::nullopt;
  cache._remember_local_sha("b", "local", "bb");
  EXPECT_EQ(cache.entries().size(), 1U);
}

TEST_F(HashCacheTest, writesKeysSortedAndNothingWhileClean) {
  cache._persist_hash_cache();
  EXPECT_FALSE(directory.contains(SYNC_HASH_CACHE_FILENAME));
  cache._remember_local_sha("b", "local", "bb");
  cache._remember_local_sha("a/é", "local", "aa");
  cache._persist_hash_cache();
  EXPECT_EQ(read_file(cache.path()),
            R"({"files": {"a/\u00e9": {"ctime_ns": 20, "inode": 30, "mtime_ns": 10, "sha256": "aa", "size_bytes": 5}, )"
            R"("b": {"ctime_ns": 20, "inode": 30, "mtime_ns": 10, "sha256": "bb", "size_bytes": 5}}, "version": 1})");
  EXPECT_EQ(HashCache::_load_hash_cache(cache.path()), cache.entries());
}

TEST_F(HashCacheTest, keepsUnusualEntriesAsTheyStand) {
  const Document unusual = document(
      R"({"a": {"sha256": "aa", "size_bytes": "5", "mtime_ns": 10.9, "ctime_ns": 20, "inode": 30},
          "extra": {"sha256": "aa", "size_bytes": 5, "mtime_ns": 10, "ctime_ns": 20, "inode": 30, "note": [1]},
          "infinite": {"sha256": "aa", "size_bytes": Infinity, "mtime_ns": 10, "ctime_ns": 20, "inode": 30},
          "null": {"sha256": "aa", "size_bytes": null, "mtime_ns": 10, "ctime_ns": 20, "inode": 30},
          "reals": {"sha256": "aa", "size_bytes": 5.0, "mtime_ns": 10, "ctime_ns": 20, "inode": 30}})");
  cache.set_entries(unusual);
  EXPECT_EQ(json_of(cache.entries()), json_of(unusual));
  for (const char* path : {"a", "extra", "reals"}) EXPECT_TRUE(hits(path)) << path;
  for (const char* path : {"infinite", "null"}) EXPECT_FALSE(hits(path)) << path;
  cache._remember_local_sha("reals", "local", "aa");  // equal, if written otherwise
  EXPECT_FALSE(cache.dirty());
  cache._remember_local_sha("a", "local", "aa");
  EXPECT_TRUE(cache.dirty());
}

TEST_F(HashCacheTest, loadsABadFileAsEmpty) {
  const std::tuple<const char*, const char*, int> rows[] = {
      {R"({"version": 1, "files": {"a": {}, "b": 5}})", R"({"a": {}})", 0},
      {R"({"version": 2, "files": {"a": {}}})", "{}", 0},
      {R"({"version": 1, "files": {"a")", "{}", 1},
      {"", "{}", 1},
      {"\"\xff\"", "{}", 1},
  };
  EXPECT_TRUE(HashCache::_load_hash_cache(cache.path()).empty());
  for (const auto& [content, entries, warnings] : rows) {
    const RecordingLog log;
    EXPECT_EQ(json_of(HashCache::_load_hash_cache(directory.write(SYNC_HASH_CACHE_FILENAME, content))), entries) << content;
    const std::vector<std::string> logged = log.messages(LogLevel::Warning);
    ASSERT_EQ(std::ssize(logged), warnings) << content;
    if (warnings > 0) {
      EXPECT_TRUE(logged[0].starts_with("Ignoring unreadable sync hash cache: "));
    }
  }
}

TEST_F(HashCacheTest, triesAFailedWriteAgain) {
  cache._remember_local_sha("a", "local", "aa");
  files.full = true;
  {
    const RecordingLog log;
    cache._persist_hash_cache();
    const std::vector<std::string> logged = log.messages(LogLevel::Warning);
    ASSERT_EQ(logged.size(), 1U);
    EXPECT_TRUE(logged[0].starts_with("Failed to persist sync hash cache: [Errno 28]")) << logged[0];
  }
  EXPECT_TRUE(cache.dirty());
  files.full = false;
  cache._persist_hash_cache();
  EXPECT_FALSE(cache.dirty());
  EXPECT_EQ(HashCache::_load_hash_cache(cache.path()), cache.entries());
}

TEST_F(HashCacheTest, takesEntriesFromManyThreads) {
  std::vector<std::thread> workers;
  for (int worker = 0; worker < 4; ++worker) {
    workers.emplace_back([this, worker] {
      for (int file = 0; file < 200; ++file) {
        cache._remember_local_sha(std::to_string(worker) + "/" + std::to_string(file), "local", "aa");
        if (file % 50 == 0) cache._persist_hash_cache();
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  cache._persist_hash_cache();
  EXPECT_EQ(HashCache::_load_hash_cache(cache.path()).size(), 800U);
}

}  // namespace
}  // namespace brackenfen::sync
