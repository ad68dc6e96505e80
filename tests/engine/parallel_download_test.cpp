#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "sync/base/threads/worker_thread.hpp"
#include "tests/support/host_interrupt.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using std::chrono::milliseconds;

class ParallelDownloadTest : public testing::Test, protected SyncSetup {
 protected:
  ParallelDownloadTest() { publish_version(1); }

  static PublishedFile file(const std::string& path) { return {path, "content of " + path}; }
  /// Plans `paths` and answers them with `reply`, or with their content.
  void plan(const std::vector<std::string>& paths, const std::optional<Reply>& reply = std::nullopt) {
    for (const std::string& path : paths) {
      const PublishedFile published = file(path);
      planned = planned.with(path, published.entry().with("_manifest_version", 1).with("_manifest_era_id", ERA));
      if (reply) {
        server.script("/data/files/" + path, {*reply});
      } else {
        server.serve_file("/data/files/" + path, published.content);
      }
    }
  }
  std::string run() {
    return failure_of([&] { manager->_download_files_parallel(neighbours(), planned, result); });
  }

  /// The same; time runs out once a file is asked for.
  std::string run_until_late(const std::string& path) {
    std::thread time([&, asked_before = requests("/data/files/" + path)] {
      while (requests("/data/files/" + path) == asked_before) std::this_thread::yield();
      clock.advance(11);
    });
    const std::string failure = run();
    time.join();
    return failure;
  }

  const std::shared_ptr<SyncManager> manager = open();
  Document planned;
  SyncResult result;
};

TEST_F(ParallelDownloadTest, oneFailureLetsTheOthersFinish) {
  environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "3");
  plan({"a", "b"});
  plan({"lost"}, Reply{.status = 404});
  plan({"c", "d", "e"});
  EXPECT_EQ(run(), "PermanentDownloadError: Download failed for lost: HTTP 404");
  EXPECT_EQ(result.features_downloaded, 5);
  EXPECT_EQ(result.bytes_downloaded, static_cast<std::int64_t>(5 * file("a").content.size()));
  for (const char* path : {"a", "b", "c", "d", "e"}) EXPECT_EQ(directory.read(path), file(path).content);
}

TEST_F(ParallelDownloadTest, eachWorkerKeepsAConnectionWhereItIsToldTo) {
  const std::vector<std::string> paths{"a", "b", "c", "d", "e", "f"};
  for (const char* reuse : {"1", "0"}) {
    environment.set("BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS", reuse);
    environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "2");
    for (const std::string& path : paths) plan({path}, Reply{.body = file(path).content, .keep = true});
    EXPECT_EQ(run(), "");
    std::set<std::size_t> connections;
    for (const std::string& path : paths) connections.insert(server.requests("/data/files/" + path).back().connection);
    EXPECT_TRUE(*reuse == '1' ? connections.size() <= 2 : connections.size() == paths.size()) << connections.size();
  }
}

TEST_F(ParallelDownloadTest, aFailedSetKeepsItsManagerNoLongerThanTheCall) {
  plan({"a", "b", "c"}, Reply{.status = 404});
  for (int round = 0; round < 50; ++round) {
    auto brief = open();
    EXPECT_THAT(failure_of([&] { brief->_download_files_parallel(neighbours(), planned, result); }), StartsWith("PermanentDownloadError"));
    const std::weak_ptr<SyncManager> gone = std::exchange(brief, nullptr);
    ASSERT_TRUE(gone.expired()) << "the directory could not be opened for another server, round " << round;
  }
}

TEST_F(ParallelDownloadTest, oneWorkerMeansThisThreadInOrderUpToTheFirstError) {
  token->call_each([caller = std::this_thread::get_id()] { EXPECT_EQ(std::this_thread::get_id(), caller); });
  environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "1");
  EXPECT_EQ(run(), "") << "nothing to do is done";
  plan({"a", "b"});
  plan({"lost"}, Reply{.status = 404});
  plan({"c"});
  EXPECT_THAT(run(), StartsWith("PermanentDownloadError"));
  EXPECT_THAT(directory.files(), ElementsAre("a", "b", "lost.tmp"));
}

TEST_F(ParallelDownloadTest, aNewerManifestEndsTheWholeBatch) {
  publish_version(2);
  environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "3");
  plan({"lost"}, Reply{.status = 404});
  plan({"down"}, Reply{.status = 503});  // waits and asks for ever
  plan({"stale"}, Reply{.body = "a newer content", .delay = milliseconds(100)});
  plan({"down_2", "queued_1", "queued_2"}, Reply{.status = 503});
  EXPECT_EQ(run(), "ManifestSupersededError: Manifest advanced while downloading stale; refreshing before retry")
      << "it takes the place of the error before it, and wakes who waits";
  EXPECT_EQ(requests("/data/files/queued_2"), 0U) << "what had not begun never does";
  EXPECT_TRUE(wait_for_worker_threads(milliseconds(2000)));
}

TEST_F(ParallelDownloadTest, theDeadlineNamesWhatIsPending) {
  const std::pair<std::vector<std::string>, const char*> rows[] = {
      {{"p1", "p2", "p3", "p4", "p5"}, "SyncError: Timed out after 10.0s in parallel download with 5 file(s) pending: p1, p2, p3, ..."},
      {{"p1", "p2", "p3"}, "SyncError: Timed out after 10.0s in parallel download with 3 file(s) pending: p1, p2, p3"},
  };
  environment.set("BRACKENFEN_SYNC_PARALLEL_TIMEOUT_SECONDS", "10");
  environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "4");
  std::atomic<bool> exits{false};
  const HostInterrupt exit_of_the_process([&] {
    if (exits) throw Interrupted{std::make_shared<int>(1)};
  });
  for (const auto& [stalled, failure] : rows) {
    planned = Document();
    plan(stalled, Reply{.delay = milliseconds(60'000)});
    EXPECT_EQ(run_until_late("p2"), failure);
    exits = true;  // nothing else ends the workers left behind
    EXPECT_TRUE(wait_for_worker_threads(milliseconds(2000)));
    exits = false;
  }
}

TEST_F(ParallelDownloadTest, aWorkerLeftBehindSpoilsNothingOfALaterBatch) {
  environment.set("BRACKENFEN_SYNC_PARALLEL_TIMEOUT_SECONDS", "10");
  environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "2");
  const std::string content = file("late").content, url_path = "/data/files/late";
  plan({"early", "late"});
  // Breaks off when the next batch is over, so that the worker would go back to where the file was empty.
  server.script(url_path, {{.body = content, .cut_after = 3, .reset = true, .delay = milliseconds(300)}});
  EXPECT_THAT(run_until_late("late"), StartsWith("SyncError: Timed out"));
  server.serve_file(url_path, content);
  EXPECT_EQ(run(), "");
  server.script(url_path, {{.status = 404}});
  EXPECT_TRUE(wait_for_worker_threads(milliseconds(2000)));
  EXPECT_EQ(directory.read("late"), content);
  EXPECT_THAT(directory.files(), ElementsAre("early", "late"));
}

TEST_F(ParallelDownloadTest, keysOfOneFileNeverShareItsStagingFile) {
  environment.set("BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", "50");
  const std::string content(1000, 'x');
  for (const char* key : {"f/one", "f//one", "./f/one", "f\\one", "f/one/.", "g/two"}) {
    const PublishedFile published{key, content};
    planned = planned.with(key, published.entry().with("_manifest_version", 1));
  }
  server.serve_file("/data/files/f/one", content);
  server.serve_file("/data/files/g/two", content);
  EXPECT_EQ(run(), "");
  EXPECT_THAT(directory.files(), ElementsAre("f/one", "g/two"));
  EXPECT_THAT(log.events("sync_backoff_wait"), IsEmpty()) << "two at once would have spoilt each other's bytes";
  EXPECT_THAT(log.events("range_resume"), IsEmpty());
}

}  // namespace
}  // namespace brackenfen::sync
