#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const PublishedFile ALPHA{"features/alpha.arrow", "alpha, first edition"};
const PublishedFile BETA{"features/beta.arrow", "beta"};
const PublishedFile LOST_PNL{"found_signals/pool/one/signal_is/pnl.arrow", "lost", "found_signal_is_pnl"};

/// Of the catalogue of functions, which every pass fetches first.
const std::size_t CATALOGUE_BYTES = SyncSetup::documents()[1].content.size();

std::string data_path(const PublishedFile& file) { return "/data/files/" + file.path; }

class PassTest : public testing::Test, protected SyncSetup {
 protected:
  /// A manager whose directory holds version 1, with the requests so far out of the way.
  std::shared_ptr<SyncManager> synced(const std::vector<PublishedFile>& published) {
    publish(1, published);
    auto manager = open();
    static_cast<void>(manager->sync());
    earlier_ = server.requests().size();
    return manager;
  }
  /// The paths asked for since synced(), without the origin.
  [[nodiscard]] std::vector<std::string> asked() const {
    std::vector<std::string> paths;
    const std::vector<LoggedRequest> all = server.requests();
    for (std::size_t index = earlier_; index < all.size(); ++index) paths.push_back(all[index].path);
    return paths;
  }
  [[nodiscard]] std::vector<std::string> warnings() const { return log.messages(LogLevel::Warning); }

  /// The files of a directory in step, sorted: `more`, and what every era brings.
  [[nodiscard]] static std::vector<std::string> with_documents(std::vector<std::string> more) {
    for (const char* path : {".sync_hash_cache.json", "feature-rotation-state.json", "manifest.json", FUNCTIONS, VOCABULARY,
                             "shuffle_seed.enc", "shuffle_seed.enc.meta.json"})
      more.emplace_back(path);
    std::sort(more.begin(), more.end());
    return more;
  }

  std::size_t earlier_ = 0;
};

TEST_F(PassTest, anEmptyDirectoryFillsAndCommits) {
  const PublishedFile module{"modules/vault.so", "code", "vault_module"};
  const PublishedFile foreign{"modules/vault.dll", "foreign", "vault_module"};
  const PublishedFile pnl{"found_signals/pool/two/signal_is/pnl.arrow", "pnl", "found_signal_is_pnl"};
  const PublishedFile useful{"useful_signals/pool/three/signal_os/pnl.arrow", "os", "useful_signal_os_pnl"};
  publish(1, {ALPHA, module, pnl, useful});
  Document published = manifest(1, {ALPHA, module, pnl, useful});
  published =
      published.with("files", published.get("files").if_document()->with(foreign.path, foreign.entry().with("platform", "amiga_68k")));
  publish_manifest(published.with("note", "caf\u00e9"));

  const auto manager = open();
  const SyncResult result = manager->sync();

  EXPECT_EQ(result.era_number, Value(ERA));
  EXPECT_EQ(result.pnl_column_count, Value(3));
  EXPECT_EQ(result.features_downloaded, 1);
  EXPECT_EQ(result.n_features, 1);
  EXPECT_EQ(result.useful_signals_downloaded, 1);
  EXPECT_EQ(result.n_useful_signals, 1);
  EXPECT_EQ(result.n_found_strategies, 0);
  EXPECT_EQ(result.bytes_downloaded, static_cast<std::int64_t>(ALPHA.content.size() + module.content.size() + pnl.content.size() +
                                                               useful.content.size() + CATALOGUE_BYTES))
      << "vocabularies and the seed do not count";
  EXPECT_TRUE(result.vocabulary_downloaded && result.shuffle_seed_downloaded);
  EXPECT_EQ((std::tuple(result.t_signal_is, result.t_strategy_is, result.n_instruments)), (std::tuple(Value(5), Value(6), Value(7))));
  EXPECT_THAT(result.found_pnl_paths_downloaded, ElementsAre(directory / pnl.path));
  EXPECT_THAT(result.active_relative_paths, SizeIs(6));

  EXPECT_EQ(directory.files(), with_documents({ALPHA.path, pnl.path, module.path, useful.path}));
  EXPECT_EQ(directory.read(ALPHA.path), ALPHA.content);
  // Keys as the server ordered them, default separators, ASCII.
  EXPECT_THAT(
      directory.read("manifest.json"),
      testing::StartsWith(
          R"({"era_number": 7, "version": 1, "pnl_column_count": 3, "files": {"features/alpha.arrow": {"kind": "feature", "size_bytes": 20, "sha256": ")"));
  EXPECT_THAT(directory.read("manifest.json"),
              testing::EndsWith(R"("platform": "amiga_68k"}}, "functions": "functions.json", "note": "caf\u00e9"})"));
  EXPECT_EQ(manager->get_manifest()->version(), Value(1));
  EXPECT_EQ(server.requests().front().header("Authorization"), "Bearer token");
}

TEST_F(PassTest, theProgressFileLiesThereWhileFilesLandAndGoesAtTheCommit) {
  struct ProgressReader : RuntimeFreshnessGuard {
    explicit ProgressReader(const TemporaryDirectory& watched) : directory(watched) {}
    void record_sync_update(std::string_view relative_path, std::string_view kind, std::string_view sha256) override {
      if (relative_path != ALPHA.path) return;
      seen = std::string(relative_path) + " " + std::string(kind) + " " + std::string(sha256);
      progress = directory.read("sync-progress.json");
      committed = directory.contains("manifest.json");
    }
    const TemporaryDirectory& directory;
    std::string seen, progress;
    bool committed = true;
  };
  const auto reader = std::make_shared<ProgressReader>(directory);
  guard = reader;
  directory.write("sync-progress.json", "left behind");
  publish(3, {ALPHA});

  static_cast<void>(open()->sync());

  EXPECT_EQ(reader->seen, ALPHA.path + " feature " + _sha256(ALPHA.content));
  EXPECT_THAT(reader->progress, AllOf(HasSubstr(R"("phase": "syncing")"), HasSubstr(R"("version": 3)"),
                                      HasSubstr(R"("total_bytes": )" + std::to_string(20 + CATALOGUE_BYTES))));
  EXPECT_FALSE(reader->committed);
  EXPECT_FALSE(directory.contains("sync-progress.json"));
}

TEST_F(PassTest, aManifestThatIsNoneLeavesFilesAndMemoryAsTheyWere) {
  struct Row {
    const char* name;
    Reply reply;
    const char* failure;
  };
  const auto with_entry = [](const char* path, Value entry) { return manifest(2, {}).with("files", Document{{path, std::move(entry)}}); };
  const auto body = [](const Document& document) { return Reply{.body = write_json(document, JsonForm::InsertionOrder)}; };
  const Document good_entry = ALPHA.entry();
  const Row rows[] = {
      {"no JSON", {.body = "<html>"}, "ManifestError: Invalid manifest JSON: Expecting value: line 1 column 1 (char 0)"},
      {"no UTF-8",
       {.body = "{\"a\": \"\xff\"}"},
       "UnicodeDecodeError: 'utf-8' codec can't decode byte 0xff in position 7: invalid start byte"},
      {"a list", {.body = "[]"}, "AttributeError: the manifest is not a JSON object: 'list' object has no attribute 'get'"},
      {"another era", body(manifest(2, {BETA}, ERA + 1)), "EraError: Era mismatch: local era_number=7, server era_number=8"},
      {"a climbing path", body(with_entry("../outside", good_entry)), "ManifestError: "},
      {"a version that is none", body(manifest(2, {BETA}).with("version", "two")), "ValueError: manifest version: invalid literal"},
      {"an endless size",
       body(with_entry("x", good_entry.with("kind", "pnl").with("size_bytes", Value::integer_from_decimal("99999999999999999999999")))),
       "MandatoryArtifactsTooLargeError: mandatory artifacts need 9223372036854775807 more bytes, "},
      {"not found", {.status = 404}, "SyncError: Failed to fetch manifest: HTTP 404"},
      {"broken for good",
       {.status = 500, .body = R"({"retryable": false})"},
       "SyncUnavailableError: BrackenFen data sync unavailable after 1 attempt(s)."},
  };
  const auto manager = synced({ALPHA});
  server.script(VERSION_PATH, {{.status = 404}});
  const std::string committed = directory.read("manifest.json");
  const std::shared_ptr<Manifest> in_memory = manager->get_manifest();
  const std::vector<std::string> present = directory.files();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    server.script(MANIFEST_PATH, {row.reply});
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), testing::StartsWith(row.failure));
    EXPECT_EQ(manager->get_manifest(), in_memory);
    EXPECT_EQ(directory.read("manifest.json"), committed);
    EXPECT_EQ(directory.files(), present);
  }
  publish(1, {ALPHA});
  EXPECT_EQ(manager->sync().n_features, 1) << "the next good answer is taken as ever";
}

TEST_F(PassTest, theVersionHintDecidesWhetherTheManifestIsFetched) {
  struct Row {
    Reply reply;
    bool fetches;
    std::string failure = "";
  };
  const Row rows[] = {
      {{.body = R"({"version": 1, "era_number": 7})"}, false},
      {{.body = R"({"version": " 1 ", "era_number": 7.9})"}, false},
      {{.body = R"({"version": 2, "era_number": 7})"}, true},
      {{.body = R"({"version": 1})"}, true},
      {{.body = R"({"version": 1, "era_number": "x"})"}, true},
      {{.body = R"({"era_number": 7})"}, true},
      {{.body = ""}, true},
      {{.status = 404}, true},
      {{.body = R"({"version": 1, "era_number": 8})"}, false, "EraError: Era mismatch: local era_number=7, server era_number=8"},
      {{.status = 401}, false, "AuthError: Authentication failed: HTTP 401"},
      {{.status = 503, .body = R"({"retryable": false})"}, false, "SyncUnavailableError: "},
  };
  const auto manager = synced({ALPHA});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.reply.body + std::to_string(row.reply.status));
    server.script(VERSION_PATH, {row.reply});
    earlier_ = server.requests().size();
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), testing::StartsWith(row.failure));
    EXPECT_EQ(asked(), row.fetches ? std::vector<std::string>({VERSION_PATH, MANIFEST_PATH}) : std::vector<std::string>({VERSION_PATH}));
  }
}

TEST_F(PassTest, aDamagedFileIsFetchedAgainAlthoughTheVersionMatches) {
  struct Row {
    const char* name;
    std::function<void()> damage;
  };
  const Row rows[] = {
      {"gone", [&] { files.unlink(directory / ALPHA.path); }},
      {"shorter", [&] { directory.write(ALPHA.path, "alpha"); }},
      {"other bytes", [&] { directory.write(ALPHA.path, std::string(ALPHA.content.size(), '?')); }},
  };
  const auto manager = synced({ALPHA, BETA});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    row.damage();
    earlier_ = server.requests().size();
    EXPECT_EQ(manager->sync().features_downloaded, 1);
    EXPECT_THAT(asked(), ElementsAre(VERSION_PATH, MANIFEST_PATH, data_path(ALPHA)));
    EXPECT_EQ(directory.read(ALPHA.path), ALPHA.content);
  }
  EXPECT_THAT(
      warnings(),
      Contains("Manifest version matched but local metadata needs repair: Manifest version matched but local data files need repair"));
  EXPECT_THAT(warnings(), Contains("Manifest version matched but local data files need repair"));
}

TEST_F(PassTest, anOlderVersionOfTheSameEraIsTakenOverWithoutADownload) {
  publish(5, {ALPHA});
  const auto manager = open();
  static_cast<void>(manager->sync());
  publish(4, {ALPHA});
  earlier_ = server.requests().size();
  const SyncResult result = manager->sync();

  EXPECT_THAT(asked(), ElementsAre(VERSION_PATH, MANIFEST_PATH));
  EXPECT_EQ(result.era_number, Value(ERA));
  EXPECT_EQ(result.n_features, 0) << "this short way counts nothing";
  EXPECT_EQ(manager->get_manifest()->version(), Value(4));
  EXPECT_THAT(directory.read("manifest.json"), HasSubstr(R"("version": 4)"));
}

TEST_F(PassTest, aNewVersionFetchesOnlyWhatThisDirectoryLacks) {
  const PublishedFile module{"modules/vault.so", "code", "vault_module"};
  const auto manager = synced({ALPHA, BETA, module});
  const PublishedFile alpha_2{ALPHA.path, "alpha, second edition"};
  const PublishedFile module_2{module.path, "new code", "vault_module"};
  const PublishedFile gamma{"features/gamma.arrow", "gamma"};
  publish(2, {alpha_2, BETA, module_2, gamma});

  EXPECT_EQ(manager->sync().bytes_downloaded, static_cast<std::int64_t>(module_2.content.size() + gamma.content.size()));
  EXPECT_THAT(asked(), Not(Contains(data_path(BETA))));
  EXPECT_EQ(directory.read(module.path), module_2.content);
  EXPECT_EQ(directory.read(ALPHA.path), ALPHA.content) << "within an era a file that is what the local manifest promised is kept";

  EXPECT_EQ(manager->sync().bytes_downloaded, static_cast<std::int64_t>(alpha_2.content.size())) << "and replaced by the next pass";
  EXPECT_EQ(directory.read(ALPHA.path), alpha_2.content);
}

TEST_F(PassTest, filesThatAreHereAlreadyAreRecognisedByTheirContent) {
  directory.write(ALPHA.path, ALPHA.content);
  directory.write(BETA.path, "other");
  const auto manager = synced({ALPHA, BETA});
  EXPECT_EQ(requests(data_path(ALPHA)), 0U);
  EXPECT_EQ(requests(data_path(BETA)), 1U);
  EXPECT_EQ(manager->hash_cache()._cached_local_sha(ALPHA.path, directory / ALPHA.path, _sha256(ALPHA.content)), _sha256(ALPHA.content));
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

  const auto body = [](const Document& document) { return Reply{.body = write_json(document, JsonForm::InsertionOrder)}; };
  server.script(MANIFEST_PATH, {body(manifest(1, {promised})), body(manifest(2, {ALPHA}))});
  EXPECT_EQ(manager->sync().features_downloaded, 1);
  EXPECT_EQ(manager->get_manifest()->version(), Value(2));
}

TEST_F(PassTest, artifactsThatStorageHasLostAreLeftOutUntilTheNextVersion) {
  environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "1");
  std::vector<PublishedFile> with_lost{ALPHA};
  std::vector<std::string> lost_paths;
  std::vector<testing::Matcher<std::string>> left_out;
  for (const char* number : {"1", "2", "3", "4", "5"}) {
    with_lost.push_back({"found_signals/pool/" + std::string(number) + "/signal_is/pnl.arrow", "lost", "found_signal_is_pnl"});
    lost_paths.push_back(with_lost.back().path);
    left_out.push_back("Manifest signal PnL artifact is missing from storage; excluding stale membership entry and retrying sync: " +
                       lost_paths.back());
  }
  publish(1, {ALPHA});
  const Document sections{{"one", Document{{"files", List{lost_paths[0]}}}}};
  publish_manifest(manifest(1, with_lost).with("found_signals", sections));
  directory.write(lost_paths[0] + ".tmp", "a part");
  const auto manager = open();
  EXPECT_EQ(manager->sync().features_downloaded, 0) << "the file landed in the pass that was given up";
  EXPECT_THAT(directory.files(), testing::ElementsAreArray(with_documents({ALPHA.path})));
  EXPECT_THAT(directory.read("manifest.json"), Not(HasSubstr("found_signals/")));
  EXPECT_THAT(manager->_missing_found_pnl.paths(), testing::ElementsAreArray(lost_paths));
  EXPECT_THAT(warnings(), testing::ElementsAreArray(left_out));

  publish(2, with_lost);
  EXPECT_THAT(manager->sync().found_pnl_paths_downloaded, SizeIs(5));
  EXPECT_THAT(manager->_missing_found_pnl.paths(), IsEmpty());
}

TEST_F(PassTest, whatCannotBeLeftOutEndsThePass) {
  struct Row {
    PublishedFile file;
    int status;
  };
  const Row rows[] = {
      {{"features/lost.arrow", "x"}, 404},
      {{LOST_PNL.path, "x", "feature"}, 404},
      {LOST_PNL, 403},
      {{"found_signals//pool/one/signal_is/pnl.arrow", "x", "found_signal_is_pnl"}, 404},  // excluded under another name: no end otherwise
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file.path + " " + row.file.kind);
    publish_manifest(manifest(1, {row.file}));
    server.script("/data/files/" + LOST_PNL.path, {{.status = row.status}});
    EXPECT_THAT(failure_of([&] { return open()->sync(); }),
                testing::StartsWith("PermanentDownloadError: Download failed for " + row.file.path));
    EXPECT_FALSE(directory.contains("manifest.json"));
  }
}

TEST_F(PassTest, aCommitThatFailsChangesNothing) {
  const auto manager = synced({ALPHA});
  const std::string committed = directory.read("manifest.json");
  publish(2, {ALPHA, BETA});
  files.fail(FaultFiles::Call::Rename, 3, ENOSPC);  // after the progress file and the data file
  EXPECT_THAT(failure_of([&] { return manager->sync(); }), testing::StartsWith("OSError: [Errno 28]"));
  EXPECT_EQ(files.calls(FaultFiles::Call::Rename).back(), directory / "manifest.json");
  EXPECT_EQ(directory.read("manifest.json"), committed);
  EXPECT_EQ(manager->get_manifest()->version(), Value(1));
  EXPECT_EQ(manager->sync().bytes_downloaded, 0) << "what landed is still here";
  EXPECT_EQ(manager->get_manifest()->version(), Value(2));
}

}  // namespace
}  // namespace brackenfen::sync
