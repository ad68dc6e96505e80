#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  const Row rows[] = {{" 1_2\n", 12, false}, {"", 0, true}, {"2.0", 0, true}, {"\xff", 0, true}};
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
    ASSERT_THAT(log.messages(LogLevel::Warning), SizeIs(warned + 1));
    EXPECT_THAT(log.messages(LogLevel::Warning).back(),
                StartsWith(row.restored ? "Failed to load vocabulary from disk: manifest is missing per-universe vocabulary.json entries"
                                        : "Failed to load manifest from disk: "));
  }
  EXPECT_THAT(server.requests(), IsEmpty());
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

}  // namespace
}  // namespace brackenfen::sync
