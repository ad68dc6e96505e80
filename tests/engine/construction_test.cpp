#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class ConstructionTest : public testing::Test, protected SyncSetup {
 protected:
  std::shared_ptr<SyncManager> get() { return SyncManager::get_or_create(options()); }
};

struct NotCallable : TokenSource {
  std::string token() override { return {}; }
  std::optional<std::string> type_where_not_callable() const override { return "<class 'int'>"; }
};

TEST_F(ConstructionTest, refusesBadArgumentsOneAfterTheOther) {
  SyncManager::Options bad = options();
  bad.get_token = std::make_shared<NotCallable>();
  bad.server_url = "";
  bad.data_dir = directory / "missing";
  const auto failure = [&] { return failure_of([&] { return std::make_shared<SyncManager>(bad); }); };
  EXPECT_EQ(failure(), "TypeError: get_token must be callable, got <class 'int'>");
  bad.get_token = token_source;
  EXPECT_EQ(failure(), "ValueError: server_url must not be empty");
  bad.server_url = "http://example.com";
  EXPECT_THAT(failure(), StartsWith("ValueError: "));
  bad.server_url = "https://example.com";
  EXPECT_EQ(failure(), "FileNotFoundError: data_dir does not exist: " + bad.data_dir);
  bad.data_dir = directory.write("missing", "a file");
  EXPECT_EQ(failure(), "FileNotFoundError: data_dir does not exist: " + bad.data_dir);
  EXPECT_EQ(failure_of([&] { return SyncManager::get_or_create(bad); }), failure());
  EXPECT_THAT(SyncManager::_instances(), IsEmpty()) << "a failed construction leaves no entry";
}

TEST_F(ConstructionTest, restoresTheConsumerCount) {
  struct Row {
    const char* content;
    std::int64_t count;
    bool warns;
  };
  const Row rows[] = {{"3", 3, false}, {" 1_2\n", 12, false}, {"", 0, true}, {"three", 0, true}, {"2.0", 0, true}, {"\xff", 0, true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.content);
    directory.write(".consumer_count", row.content);
    const std::size_t warned = log.messages(LogLevel::Warning).size();
    EXPECT_EQ(open()->_consumer_count.load(), row.count);
    const std::vector<std::string> warnings = log.messages(LogLevel::Warning);
    ASSERT_THAT(warnings, SizeIs(warned + (row.warns ? 1 : 0)));
    if (row.warns) {
      EXPECT_THAT(warnings.back(), StartsWith("Failed to read consumer count: "));
    }
  }
}

TEST_F(ConstructionTest, restoresTheManifestAndRewritesOneThatHoldsRetiredFiles) {
  struct Row {
    const char* name;
    std::string content;
    std::optional<std::string> rewritten;  ///< absent: the file stays as it is
    bool restored;
  };
  const Row rows[] = {
      {"as it should be", R"({"era_number":7,"version":2,"files":{}})", std::nullopt, true},
      {"with a retired file", R"({"version":2,"files":{"found_signals/p/e/signal_is/pnl_long.arrow":{},"a":{}}})",
       R"({"version": 2, "files": {"a": {}}})", true},
      {"no JSON", "{", std::nullopt, false},
      {"no object", "[]", std::nullopt, false},
      {"no text", "\xff\xfe", std::nullopt, false},
      {"empty", "", std::nullopt, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    directory.write("manifest.json", row.content);
    const std::size_t warned = log.messages(LogLevel::Warning).size();
    const auto manager = open();
    EXPECT_EQ(manager->get_manifest() != nullptr, row.restored);
    if (row.restored) {
      EXPECT_EQ(manager->get_manifest()->version(), Value(2));
    }
    EXPECT_EQ(directory.read("manifest.json"), row.rewritten.value_or(row.content));
    ASSERT_THAT(log.messages(LogLevel::Warning), SizeIs(warned + (row.restored ? 0 : 1)));
    if (!row.restored) {
      EXPECT_THAT(log.messages(LogLevel::Warning).back(), StartsWith("Failed to load manifest from disk: "));
    }
  }
  EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(ConstructionTest, aRewriteThatFailsLeavesFileAndMemoryEmptyHanded) {
  const std::string retired = R"({"version":2,"files":{"found_signals/p/e/signal_is/pnl_long.arrow":{}}})";
  directory.write("manifest.json", retired);
  files.fail(FaultFiles::Call::Rename, 1, ENOSPC);
  EXPECT_EQ(open()->get_manifest(), nullptr);
  EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre(StartsWith("Failed to load manifest from disk: [Errno 28]")));
  EXPECT_THAT(directory.files(), ElementsAre("manifest.json"));
}

TEST_F(ConstructionTest, oneDirectoryHasOneManager) {
  struct Guard : RuntimeFreshnessGuard {
    void record_sync_update(std::string_view, std::string_view, std::string_view) override {}
  };
  const TemporaryDirectory elsewhere;
  std::filesystem::create_directory_symlink(directory.path(), elsewhere / "link");
  guard = std::make_shared<Guard>();
  const auto first = get();
  EXPECT_THAT(SyncManager::_instances(), ElementsAre(testing::Pair(directory.path(), first)));

  SyncManager::Options again = options();
  again.data_dir = elsewhere / "link/.";
  again.get_token = fixed_token("newer");
  again.runtime_freshness_guard = nullptr;
  again.poll_interval_s = 99;
  EXPECT_EQ(SyncManager::get_or_create(again), first);
  EXPECT_EQ(first->_get_token.get(), again.get_token);
  EXPECT_EQ(first->runtime_freshness_guard.get(), guard) << "an absent guard does not replace one";
  EXPECT_EQ(first->_poll_interval.get(), SYNC_MANIFEST_POLL_INTERVAL_SECONDS);
  EXPECT_EQ(first->_data_dir.get(), directory.path());

  SyncManager::Options foreign = options();
  foreign.server_url = "https://other.example";
  EXPECT_EQ(failure_of([&] { return SyncManager::get_or_create(foreign); }), "ValueError: SyncManager for '" + directory.path() +
                                                                                 "' already exists with server_url='" + server.url() +
                                                                                 "', cannot reuse with server_url='https://other.example'");
  EXPECT_EQ(first->_get_token.get(), again.get_token) << "a refused call changes nothing";
}

TEST_F(ConstructionTest, anEntryNeverKeepsItsManagerAlive) {
  const std::weak_ptr<SyncManager> first = get();
  EXPECT_TRUE(first.expired());
  EXPECT_THAT(SyncManager::_instances(), IsEmpty());

  const auto second = get();
  SyncManager::_evict(directory / ".");
  SyncManager::_evict(directory / "never there");
  EXPECT_NE(get(), second) << "an evicted manager lives on, but is found no more";
}

TEST_F(ConstructionTest, aSourceThatIsNoneIsAnErrorOfTheRequest) {
  publish(1, {});
  const auto manager = get();
  SyncManager::Options without = options();
  without.get_token = nullptr;
  EXPECT_EQ(SyncManager::get_or_create(without), manager);
  EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith("TypeError: get_token must be callable"));
}

/// Descriptors of this process that lead to `path`.
int descriptors_on(const std::string& path) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == path) ++count;
  }
  return count;
}

TEST_F(ConstructionTest, aForkedChildBuildsItsOwnManager) {
  publish(1, {{"a", "content of a"}});
  const auto manager = get();
  manager->_acquire_flock();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::string refusal = failure_of([&] { return manager->sync(); });
    const bool refused = refusal.starts_with("StateError: this SyncManager was created before fork()");
    const bool inherited = descriptors_on(directory.path()) + descriptors_on(directory / ".sync_flock") > 0;
    const bool released = failure_of([&] { manager->_release_flock(); }).empty();
    const bool own = SyncManager::_instances().empty() && get() != manager;
    ::_exit((refused ? 0 : 1) | (inherited ? 2 : 0) | (released ? 4 : 0) | (own ? 0 : 8));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: not refused, 2: the parent's lock is still open, 4: and was released, 8: no manager of its own";
  EXPECT_TRUE(directory.contains(".sync_flock")) << "the parent still holds it";
  manager->_release_flock();
  EXPECT_EQ(manager->sync().bytes_downloaded, 12);
}

}  // namespace
}  // namespace brackenfen::sync
