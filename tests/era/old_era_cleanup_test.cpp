#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <future>

#include "sync/base/threads/interrupt.hpp"
#include "sync/era/directory_tree.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

class OldEraCleanupTest : public testing::Test, protected SyncSetup {
 protected:
  void SetUp() override {
    for (const char* path : {"era_6/a/b", "era7/a", "era_8/a", "eras/a", "era/a", "features/a", ".transition_era9.tmp/a", ".era_6/a"}) {
      directory.write(path, "12345");
    }
    directory.write("era_5", "a file of that name");
    std::filesystem::create_directory_symlink(outside.path(), directory / "era_4");
    outside.write("precious", "x");
  }

  std::shared_ptr<SyncManager> in_era(const std::string& era) {
    directory.write("manifest.json", R"({"era_number": )" + era + R"(, "files": {}})");
    return open();
  }
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) found.push_back(entry.path().filename());
    return found;
  }

  const TemporaryDirectory outside;
};

TEST_F(OldEraCleanupTest, namesOfEraDirectories) {
  for (const char* name : {"era_12", "era12", "era_012", "era_\u0661\u0662"}) EXPECT_EQ(_parse_era_directory_id(name), Value(12)) << name;
  for (const char* name : {"era_", "era", "era_1a", "eras", ".era_1", "era_-1", "era_1_2", "era_ 1", "era_\u00b2", "xera_1", "era__1"}) {
    EXPECT_EQ(_parse_era_directory_id(name), std::nullopt) << name;
  }
}

TEST_F(OldEraCleanupTest, keepsTheCurrentEraAndWhatIsNoEraOrRemovesAllData) {
  for (const char* name : {"shuffle_seed.enc", "shuffle_seed.enc.meta.json"}) directory.write(name, "seed");
  EXPECT_EQ(in_era("7")->cleanup_old_eras(), 10);
  const auto in_no_era = in_era("null");
  const std::vector<std::string> always{"era_5", "era_4", ".transition_era9.tmp", ".era_6", "shuffle_seed.enc.meta.json"};
  std::vector<std::string> others = always;
  others.insert(others.end(), {"eras", "era", "features", "manifest.json", "shuffle_seed.enc", "era7"});
  EXPECT_THAT(names(), UnorderedElementsAreArray(others));
  EXPECT_EQ(in_no_era->cleanup_old_eras(), 5) << "without an era to keep every one goes";
  others.pop_back();
  EXPECT_THAT(names(), UnorderedElementsAreArray(others));
  const auto manifest_bytes = static_cast<std::int64_t>(directory.read("manifest.json").size());
  EXPECT_EQ(in_no_era->cleanup_old_eras(false), 15 + manifest_bytes + 4);
  EXPECT_THAT(names(), UnorderedElementsAreArray(always));
  EXPECT_TRUE(outside.contains("precious")) << "a link is neither followed nor removed";
}

TEST_F(OldEraCleanupTest, theBackgroundFormTellsWhatItFreedAndSwallowsFailures) {
  const auto manager = in_era("7");
  manager->_cleanup_old_eras_background(true);
  manager->_cleanup_old_eras_background(true);
  EXPECT_THAT(log.messages(LogLevel::Info), ElementsAre("Old era cleanup completed: freed 10 bytes"));
  manager->_data_dir.set(directory / "gone");
  manager->_cleanup_old_eras_background(true);
  EXPECT_THAT(log.messages(LogLevel::Warning), Contains(StartsWith("Background old-era cleanup failed: [Errno 2]")));
}

TEST_F(OldEraCleanupTest, aTreeGoesHoweverDeepAndStopsAtAnInterrupt) {
  std::string deep = "deep";
  for (int level = 0; level < 200; ++level) directory.write((deep += "/d") + "/file", "x");
  const auto exit = std::make_shared<InterruptToken>();
  exit->trip();
  {
    const InterruptScope scope(exit);
    EXPECT_THROW(remove_tree(directory / "deep"), Interrupted);
  }
  EXPECT_TRUE(std::filesystem::exists(directory / "deep"));
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit few{64, limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_EQ(failure_of([&] { return remove_tree(directory / "deep"), 0; }), "");
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_FALSE(std::filesystem::exists(directory / "deep"));
}

TEST_F(OldEraCleanupTest, anotherDirectoryThatTookTheNameStays) {
  const Descriptor open = open_file(directory / "eras", O_RDONLY | O_DIRECTORY);
  std::filesystem::rename(directory / "eras", directory / "moved");
  std::filesystem::create_directory(directory / "eras");
  remove_tree(open, directory / "eras");
  EXPECT_TRUE(std::filesystem::exists(directory / "eras"));
  EXPECT_TRUE(std::filesystem::is_empty(directory / "moved"));
}

TEST_F(OldEraCleanupTest, oneThreadAtATimeCleans) {
  std::atomic<int> runs = 0;
  std::promise<void> may_end;
  OldEraCleanup cleanup;
  const auto clean = [&, end = may_end.get_future().share()] {
    ++runs;
    end.wait();
  };
  for (int request = 0; request < 3; ++request) cleanup.schedule(clean);
  const auto first = cleanup._cleanup_thread();
  may_end.set_value();
  first->join(Clock::real(), 10);
  EXPECT_EQ(runs, 1) << "a request that comes while one is running is dropped";
  cleanup.schedule(clean);
  cleanup._cleanup_thread()->join(Clock::real(), 10);
  EXPECT_EQ(runs, 2);
}

}  // namespace
}  // namespace brackenfen::sync
