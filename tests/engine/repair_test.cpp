#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

const PublishedFile ALPHA{"features/alpha.arrow", "alpha"};
const PublishedFile BETA{"features/beta.arrow", "beta"};
const PublishedFile MODULE{"modules/vault.so", "code", "vault_module"};

class RepairTest : public testing::Test, protected SyncSetup {
 protected:
  /// The lock's file is gone, and any process may take it.
  void expect_lock_free(SyncManager& manager) {
    EXPECT_FALSE(directory.contains(".sync_flock"));
    EXPECT_THROW(manager._release_flock(), Error) << "the lock is still held";
  }
};

TEST_F(RepairTest, onlyWhatIsListedForThisPlatformIsFetchedInTheOrderGiven) {
  const auto manager = synced({ALPHA, BETA});
  const Document foreign = MODULE.entry().with("platform", "amiga_68k");
  manager->get_manifest()->set_file(MODULE.path, foreign);
  directory.write(ALPHA.path, "ALPHA");
  files.unlink(directory / BETA.path);
  const SyncResult result = manager->repair({BETA.path, "unknown", MODULE.path, ALPHA.path});
  EXPECT_EQ(result.era_number, Value(ERA));
  EXPECT_EQ((std::tuple(result.features_downloaded, result.bytes_downloaded)), (std::tuple(2, 9)));
  EXPECT_THAT(asked(), ElementsAre(BETA.url_path(), ALPHA.url_path()));
  expect_lock_free(*manager);

  // A name and a stamp that this library gives to nobody: an older one may have committed them.
  manager->get_manifest()->set_file("./manifest.json", ALPHA.entry());
  manager->get_manifest()->set_file(BETA.path, BETA.entry().with("_manifest_base_url", server.url() + "/elsewhere"));
  EXPECT_EQ(failure_of([&] {
              return manager->repair({ALPHA.path, "./manifest.json"});
            }),
            "ManifestError: Manifest lists a file of the library's own: ./manifest.json");
  EXPECT_THAT(asked(), IsEmpty()) << "before anything is fetched";
  static_cast<void>(manager->repair({BETA.path}));
  EXPECT_THAT(asked(), ElementsAre(BETA.url_path()));

  manager->hash_cache().set_dirty(true);
  EXPECT_EQ(manager->repair({"unknown"}).era_number, Value(ERA));
  EXPECT_FALSE(manager->hash_cache().dirty()) << "the cache is written all the same";
  EXPECT_EQ(manager->ensure_manifest_file_available(MODULE.path, foreign), SyncResult{});
  manager->_manifest.set(nullptr);
  EXPECT_EQ(manager->repair({ALPHA.path}), SyncResult{});
  EXPECT_THAT(asked(), IsEmpty());
  expect_lock_free(*manager);
}

TEST_F(RepairTest, aVocabularyFromElsewhereIsFetchedWithoutTheToken) {
  const auto manager = synced({ALPHA});
  ScriptedServer elsewhere;
  for (ScriptedServer* host : {&server, &elsewhere}) {
    host->serve_file("/mirror/" + std::string(VOCABULARY), documents()[0].content);
    const Document entry = PublishedFile{VOCABULARY, documents()[0].content, "vocabulary"}.entry();
    manager->get_manifest()->set_file(VOCABULARY, entry.with("base_url", host->url() + "/mirror"));
    EXPECT_TRUE(manager->repair({VOCABULARY}).vocabulary_downloaded);
    EXPECT_EQ(host->requests().back().header("Authorization"), host == &server ? std::optional<std::string>("Bearer token") : std::nullopt);
  }
}

TEST_F(RepairTest, aSupersededManifestMakesItAFullSync) {
  const auto manager = synced({ALPHA, BETA});
  const PublishedFile alpha_2{ALPHA.path, "alpha 2"};
  publish(2, {alpha_2, BETA});
  directory.write(ALPHA.path, "ALPHA");
  EXPECT_EQ(manager->repair({ALPHA.path}).n_features, 2) << "the result of a pass, not of the repair";
  EXPECT_EQ(directory.read(ALPHA.path), alpha_2.content);
  EXPECT_EQ(manager->get_manifest()->version(), Value(2));
  EXPECT_THAT(warnings(),
              Contains("Manifest changed during repair; refreshing manifest and running full sync: Manifest advanced while downloading "
                       "features/alpha.arrow; refreshing before retry"));
  expect_lock_free(*manager);
}

}  // namespace
}  // namespace brackenfen::sync
