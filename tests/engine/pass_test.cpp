#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>

#include "sync/neighbours/sync_backoff.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

const PublishedFile ALPHA{"features/alpha.arrow", "alpha, first edition"};
const PublishedFile BETA{"features/beta.arrow", "beta"};
const PublishedFile MODULE{"modules/vault.so", "code", "vault_module"};
const PublishedFile PNL{"found_signals/pool/one/signal_is/pnl.arrow", "pnl", "found_signal_is_pnl"};

Reply reply(const Document& body) { return {.body = json_of(body)}; }

class PassTest : public testing::Test, protected SyncSetup {};

TEST_F(PassTest, aManifestThatIsNoneLeavesFilesAndMemoryAsTheyWere) {
  const auto with_entry = [](const char* path, const Document& entry) {
    return reply(manifest(2, {}).with("files", Document{{path, entry}}));
  };
  const Document endless = PNL.entry().with("kind", "pnl").with("size_bytes", Value::integer_from_decimal("99999999999999999999999"));
  const std::pair<Reply, const char*> rows[] = {
      {{.body = "[]"}, "AttributeError: the manifest is not a JSON object: 'list' object has no attribute 'get'"},
      {reply(manifest(2, {BETA}, ERA + 1)), "EraError: Era mismatch: local era_number=7, server era_number=8"},
      {with_entry("./.consumer_count", ALPHA.entry()), "ManifestError: Manifest lists a file of the library's own: ./.consumer_count"},
      {with_entry("self/manifest.json", ALPHA.entry()), "ManifestError: Manifest lists a file of the library's own: self/manifest.json"},
      {reply(manifest(2, {BETA}).with("version", "two")), "ValueError: manifest version: invalid literal"},
      {reply(manifest(2, {}).with("version", HUGE_VAL)), "ManifestError: manifest version: cannot convert float infinity to integer"},
      {with_entry(ALPHA.path.c_str(), ALPHA.entry().with("size_bytes", HUGE_VAL)), "ManifestError: manifest size_bytes of features/alpha"},
      {with_entry(ALPHA.path.c_str(), ALPHA.entry().with("size_bytes", std::nan(""))), "ManifestError: manifest size_bytes of features/al"},
      {with_entry("x", endless), "MandatoryArtifactsTooLargeError: mandatory artifacts need 9223372036854775807 more bytes, "},
  };
  const auto manager = synced({ALPHA});
  server.script(VERSION_PATH, {{.status = 404}});
  std::filesystem::create_symlink(".", directory / "self");
  const std::string committed = directory.read("manifest.json");
  const std::shared_ptr<Manifest> in_memory = manager->get_manifest();
  const std::vector<std::string> present = directory.files();
  for (const auto& [answer, failure] : rows) {
    server.script(MANIFEST_PATH, {answer});
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith(failure));
    EXPECT_EQ(manager->get_manifest(), in_memory);
    EXPECT_EQ(directory.read("manifest.json"), committed);
    EXPECT_EQ(directory.files(), present);
  }
  publish(1, {ALPHA});
  EXPECT_EQ(manager->sync().n_features, 1) << "the next good answer is taken as ever";

  Document committed_files = *document(committed).get("files").if_document();
  for (const char* path : {ALPHA.path.c_str(), FUNCTIONS})
    committed_files = committed_files.with(path, committed_files.get(path).if_document()->with("size_bytes", HUGE_VAL));
  directory.write("manifest.json", json_of(document(committed).with("files", committed_files)));
  directory.write("shuffle_seed.enc.meta.json", R"({"era_number": Infinity})");
  EXPECT_EQ(open()->sync().bytes_downloaded, 0) << "numbers that no integer holds match nothing, and are replaced";
  EXPECT_THAT(directory.read("manifest.json") + directory.read("shuffle_seed.enc.meta.json"), Not(HasSubstr("Infinity")));
}

TEST_F(PassTest, whatIsNoFileWhereOneBelongsIsFetchedAnew) {
  const auto manager = synced({ALPHA});
  for (const char* name : {ALPHA.path.c_str(), FUNCTIONS, VOCABULARY, "shuffle_seed.enc", "shuffle_seed.enc.meta.json", "manifest.json"}) {
    for (const bool pipe : {true, false}) {
      std::filesystem::remove(directory / name);
      ASSERT_EQ(pipe ? ::mkfifo((directory / name).c_str(), 0600) : ::mkdir((directory / name).c_str(), 0700), 0);
      EXPECT_TRUE(manager->needs_sync() || std::string(name).starts_with("shuffle")) << name;
      EXPECT_EQ(failure_of([&] { return manager->sync(); }), "") << name;
      EXPECT_TRUE(std::filesystem::is_regular_file(directory / name)) << name;
    }
  }
  std::filesystem::rename(directory / ALPHA.path, directory / "away");
  std::filesystem::create_directory(directory / (ALPHA.path + ".tmp"));
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "") << "the same of a staging file";
  std::filesystem::remove(directory / ALPHA.path);
  ASSERT_EQ(::mkfifo((directory / ALPHA.path).c_str(), 0600), 0);
  EXPECT_THAT(manager->verify().corrupted_files, ElementsAre(ALPHA.path));
}

TEST_F(PassTest, aDirectoryThatIsNotTheOneItBeganInEndsIt) {
  for (const auto& [made_anew, while_downloading] : {std::pair(false, true), {true, true}, {true, false}}) {
    const TemporaryDirectory scratch;
    std::atomic<bool> is_over{false};
    const std::string live = scratch / "live", moved = scratch / "moved";
    std::filesystem::create_directory(live);
    const auto move_away = [&, anew = made_anew] {
      if (is_over.exchange(true)) return;
      std::filesystem::rename(live, moved);
      if (anew) scratch.write("live/another's.tmp", "");
    };
    guard = std::make_shared<CallingGuard>([&](auto...) { move_away(); });
    if (!while_downloading) files.before(FaultFiles::Call::Unlink, move_away);
    SyncManager::Options elsewhere = options();
    elsewhere.data_dir = live;
    publish(1, {ALPHA, BETA});
    EXPECT_EQ(failure_of([&] { return std::make_shared<SyncManager>(elsewhere)->sync(); }),
              "FileNotFoundError: [Errno 2] No such file or directory: '" + live + "'");
    EXPECT_EQ(std::filesystem::exists(live), made_anew);
    EXPECT_EQ(std::filesystem::exists(live + "/another's.tmp"), made_anew);
    EXPECT_FALSE(std::filesystem::exists(live + "/manifest.json"));
    EXPECT_FALSE(std::filesystem::exists(live + "/features"));
  }
}

TEST_F(PassTest, theVersionHintDecidesWhetherTheManifestIsFetched) {
  const std::tuple<Reply, bool, const char*> rows[] = {
      {{.body = R"({"version": " 1 ", "era_number": 7.9})"}, false, ""},
      {{.body = R"({"version": 2, "era_number": 7})"}, true, ""},
      {{.body = R"({"version": 1})"}, true, ""},
      {{.body = R"({"version": 1, "era_number": "x"})"}, true, ""},
      {{.status = 404}, true, ""},
      {{.body = R"({"version": 1, "era_number": 8})"}, false, "EraError: Era mismatch: local era_number=7, server era_number=8"},
      {{.status = 401}, false, "AuthError: Authentication failed: HTTP 401"},
      {{.status = 503, .body = R"({"retryable": false})"}, false, "SyncUnavailableError: "},
  };
  const auto manager = synced({ALPHA});
  for (const auto& [answer, fetches, failure] : rows) {
    SCOPED_TRACE(answer.body + std::to_string(answer.status));
    server.script(VERSION_PATH, {answer});
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith(failure));
    EXPECT_EQ(asked(), fetches ? std::vector<std::string>({VERSION_PATH, MANIFEST_PATH}) : std::vector<std::string>({VERSION_PATH}));
  }
  server.script(VERSION_PATH, {{.status = 503}});
  const auto stopped = SyncBackoff::builtin().enter_context({{}, {}, [] { return true; }, {}});
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "");
  EXPECT_EQ(warnings().back(), "Manifest version check failed: SyncBackoffCancelled");
}

TEST_F(PassTest, anOlderVersionOfTheSameEraIsTakenOverWithoutADownload) {
  const auto manager = synced({ALPHA});
  publish(0, {ALPHA});
  const std::string staging = directory.write("features/left_behind.arrow.tmp", "half of it");
  const RecordingLog pass_log;
  EXPECT_EQ(manager->sync().n_features, 0) << "this short way counts nothing";
  EXPECT_FALSE(std::filesystem::exists(staging));
  EXPECT_THAT(pass_log.messages(LogLevel::Info), IsEmpty()) << "the library's own is nothing to report";
  EXPECT_THAT(asked(), ElementsAre(VERSION_PATH, MANIFEST_PATH));
  EXPECT_EQ(manager->get_manifest()->version(), Value(0));
  EXPECT_THAT(directory.read("manifest.json"), HasSubstr(R"("version": 0)"));
}

TEST_F(PassTest, aNewVersionFetchesOnlyWhatThisDirectoryLacks) {
  directory.write(BETA.path, BETA.content);
  const auto manager = synced({ALPHA, BETA, MODULE});
  EXPECT_EQ(requests(BETA.url_path()), 0U) << "what lies here is recognised by its content";
  const PublishedFile alpha_2{ALPHA.path, "alpha, second edition"};
  const PublishedFile module_2{MODULE.path, "new code", "vault_module"};
  const PublishedFile gamma{"features/gamma.arrow", "gamma"};
  publish(2, {alpha_2, BETA, module_2, gamma});

  directory.write("features/stray.arrow", "somebody's own");
  const RecordingLog pass_log;
  EXPECT_EQ(manager->sync().bytes_downloaded, static_cast<std::int64_t>(module_2.content.size() + gamma.content.size()));
  EXPECT_EQ(directory.read(MODULE.path), module_2.content);
  EXPECT_THAT(pass_log.messages(LogLevel::Warning), ElementsAre("1 files keep their bytes although the new manifest of this era states "
                                                                "others, which come with the next pass: " +
                                                                std::string(ALPHA.path)));
  EXPECT_THAT(pass_log.messages(LogLevel::Info), ElementsAre("Deleted 1 files that this library had not put below its folders of artifacts",
                                                             StartsWith("Synced era 7 to version 2: 2 files, 13 bytes, in ")));
  EXPECT_EQ(directory.read(ALPHA.path), ALPHA.content) << "within an era a file that is what the local manifest promised is kept";
  EXPECT_EQ(manager->sync().bytes_downloaded, static_cast<std::int64_t>(alpha_2.content.size())) << "and replaced by the next pass";
  EXPECT_EQ(directory.read(ALPHA.path), alpha_2.content);
}

TEST_F(PassTest, countsAmongWhatItDeletesNothingThatItHadPutThere) {
  const PublishedFile module{"features/vault.so", "code", "vault_module"};  // whose digest no cache remembers
  auto manager = synced({ALPHA, BETA, module});
  int version = 1;
  for (const std::vector<PublishedFile>& left : {std::vector{ALPHA, BETA}, std::vector{ALPHA}}) {
    publish(++version, left);
    const RecordingLog pass_log;
    EXPECT_EQ(manager->sync().n_features, static_cast<std::int64_t>(left.size()));
    EXPECT_THAT(pass_log.messages(LogLevel::Info), ElementsAre(StartsWith("Synced era 7 to version ")));
    std::filesystem::remove(directory / ".sync_hash_cache.json");
    manager = open();
  }
  EXPECT_FALSE(directory.contains(module.path) || directory.contains(BETA.path));
}

TEST_F(PassTest, aSupersededPassIsRunThreeTimes) {
  const PublishedFile promised{ALPHA.path, "what the first manifest promised"};
  publish(2, {ALPHA});
  publish_manifest(manifest(1, {promised}));
  const auto manager = open();
  const std::string failure = "Manifest advanced while downloading features/alpha.arrow; refreshing before retry";
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "ManifestSupersededError: " + failure);
  const std::string warning = "Manifest changed during sync; refreshing manifest and restarting download set ";
  EXPECT_THAT(warnings(), ElementsAre(warning + "(1/3): " + failure, warning + "(2/3): " + failure, warning + "(3/3): " + failure));
  EXPECT_EQ(requests(MANIFEST_PATH), 3U);
  EXPECT_FALSE(directory.contains("manifest.json"));

  server.script(MANIFEST_PATH, {reply(manifest(1, {promised})), reply(manifest(2, {ALPHA}))});
  EXPECT_EQ(manager->sync().features_downloaded, 1);
  EXPECT_EQ(manager->get_manifest()->version(), Value(2));
}

TEST_F(PassTest, artifactsLostFromOneManifestAfterTheOtherEndThePass) {
  std::vector<Reply> rising, changing;
  for (int number = 1; number < 20; ++number) {
    rising.push_back(reply(manifest(number, {PNL})));
    changing.push_back(reply(manifest(1, {{"found_signals/pool/" + std::to_string(number) + "/signal_is/pnl.arrow", "", PNL.kind}})));
  }
  const auto manager = open();
  for (const std::vector<Reply>& manifests : {rising, changing}) {
    server.script(MANIFEST_PATH, manifests);
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith("ManifestSupersededError: Manifest advanced while lost"));
    EXPECT_EQ(std::ranges::count(asked(), MANIFEST_PATH), 1 + SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT);
  }
  const auto stopped = SyncBackoff::builtin().enter_context({{}, {}, [] { return true; }, {}});
  EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith("SyncBackoffCancelled"));
  EXPECT_EQ(std::ranges::count(asked(), MANIFEST_PATH), 1);
}

TEST_F(PassTest, whatCannotBeLeftOutEndsThePass) {
  const std::tuple<std::string, const char*, int> rows[] = {
      {PNL.path, "feature", 404},
      {PNL.path, "found_signal_is_pnl", 403},
      {"found_signals//pool/one/signal_is/pnl.arrow", "found_signal_is_pnl", 404},  // excluded under another name: no end otherwise
  };
  for (const auto& [path, kind, status] : rows) {
    SCOPED_TRACE(path + " " + kind);
    publish_manifest(manifest(1, {{path, "x", kind}}));
    server.script(PNL.url_path(), {{.status = status}});
    EXPECT_THAT(failure_of([&] { return open()->sync(); }), StartsWith("PermanentDownloadError: Download failed for " + path));
    EXPECT_FALSE(directory.contains("manifest.json"));
  }
}

TEST_F(PassTest, aCommitThatFailsChangesNothing) {
  const auto manager = synced({ALPHA});
  const std::string committed = directory.read("manifest.json");
  publish(2, {ALPHA, BETA});
  files.fail(FaultFiles::Call::Rename, 3, ENOSPC);  // after the progress file and the data file
  EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith("OSError: [Errno 28]"));
  EXPECT_EQ(files.calls(FaultFiles::Call::Rename).back(), directory / "manifest.json");
  EXPECT_EQ(directory.read("manifest.json"), committed);
  EXPECT_EQ(manager->get_manifest()->version(), Value(1));
  EXPECT_EQ(manager->sync().bytes_downloaded, 0) << "what landed is still here";
  EXPECT_EQ(manager->get_manifest()->version(), Value(2));
}

}  // namespace
}  // namespace brackenfen::sync
