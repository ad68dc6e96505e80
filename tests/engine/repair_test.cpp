#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const PublishedFile ALPHA{"features/alpha.arrow", "alpha"};
const PublishedFile BETA{"features/beta.arrow", "beta"};
const PublishedFile MODULE{"modules/vault.so", "code", "vault_module"};

class RepairTest : public testing::Test, protected SyncSetup {
 protected:
  std::shared_ptr<SyncManager> synced(const std::vector<PublishedFile>& published) {
    publish(1, published);
    auto manager = open();
    static_cast<void>(manager->sync());
    earlier_ = server.requests().size();
    return manager;
  }
  /// The paths asked for since synced() or the call before.
  [[nodiscard]] std::vector<std::string> asked() {
    std::vector<std::string> paths;
    const std::vector<LoggedRequest> all = server.requests();
    for (; earlier_ < all.size(); ++earlier_) paths.push_back(all[earlier_].path);
    return paths;
  }
  /// The lock's file is gone, and any process may take it.
  void expect_lock_free(SyncManager& manager) {
    EXPECT_FALSE(directory.contains(".sync_flock"));
    EXPECT_THROW(manager._release_flock(), Error) << "the lock is still held";
  }

  std::size_t earlier_ = 0;
};

TEST_F(RepairTest, whatVerifyFindsIsMended) {
  const auto manager = synced({ALPHA, BETA, MODULE});
  directory.write(ALPHA.path, "ALPHA");
  files.unlink(directory / BETA.path);
  directory.write(".sync_hash_cache.json", "");
  const VerifyResult found = manager->verify();
  EXPECT_THAT(found.corrupted_files, ElementsAre(ALPHA.path));
  EXPECT_THAT(found.missing_files, ElementsAre(BETA.path));

  const SyncResult result = manager->repair({BETA.path, "unknown", ALPHA.path});
  EXPECT_EQ(result.era_number, Value(ERA));
  EXPECT_EQ(result.features_downloaded, 2);
  EXPECT_EQ(result.bytes_downloaded, 9);
  EXPECT_THAT(asked(), ElementsAre("/data/files/" + BETA.path, "/data/files/" + ALPHA.path));
  EXPECT_TRUE(manager->verify().valid);
  EXPECT_NE(directory.read(".sync_hash_cache.json"), "");
  expect_lock_free(*manager);
}

TEST_F(RepairTest, whatIsNotToBeFetchedMakesNoRequest) {
  const auto manager = synced({ALPHA});
  const Document foreign = MODULE.entry().with("platform", "amiga_68k");
  manager->get_manifest()->set_file(MODULE.path, foreign);
  manager->hash_cache().set_dirty(true);
  EXPECT_EQ(manager->repair({"unknown", MODULE.path}).era_number, Value(ERA));
  EXPECT_FALSE(manager->hash_cache().dirty()) << "the cache is written all the same";
  EXPECT_EQ(manager->ensure_manifest_file_available(MODULE.path, foreign), SyncResult{});
  manager->_manifest.set(nullptr);
  EXPECT_EQ(manager->repair({ALPHA.path}), SyncResult{});
  EXPECT_THAT(asked(), IsEmpty());
  expect_lock_free(*manager);
}

TEST_F(RepairTest, oneFileIsFetchedByTheEntryThatIsGiven) {
  const auto manager = synced({ALPHA});
  server.serve_file("/data/files/" + BETA.path, BETA.content);
  EXPECT_EQ(manager->ensure_manifest_file_available(BETA.path, BETA.entry()).bytes_downloaded, 4);
  EXPECT_EQ(directory.read(BETA.path), BETA.content);
  EXPECT_THAT(asked(), ElementsAre("/data/files/" + BETA.path)) << "without a stamp nobody asks for the generation";
  EXPECT_EQ(manager->ensure_manifest_file_available(BETA.path, BETA.entry()).bytes_downloaded, 4) << "what lies there is not looked at";
}

TEST_F(RepairTest, aSupersededManifestMakesItAFullSync) {
  const auto manager = synced({ALPHA, BETA});
  const PublishedFile alpha_2{ALPHA.path, "alpha 2"};
  publish(2, {alpha_2, BETA});
  directory.write(ALPHA.path, "ALPHA");
  const SyncResult result = manager->repair({ALPHA.path});
  EXPECT_EQ(result.n_features, 2) << "the result of a pass, not of the repair";
  EXPECT_EQ(directory.read(ALPHA.path), alpha_2.content);
  EXPECT_EQ(manager->get_manifest()->version(), Value(2));
  EXPECT_THAT(log.messages(LogLevel::Warning),
              Contains("Manifest changed during repair; refreshing manifest and running full sync: Manifest advanced while downloading "
                       "features/alpha.arrow; refreshing before retry"));
  expect_lock_free(*manager);
}

TEST_F(RepairTest, anErrorLeavesTheLockFree) {
  struct Row {
    Document changes;
    Reply reply;
    const char* failure;
  };
  const Row rows[] = {
      {{}, {.status = 404}, "PermanentDownloadError: "},
      {{}, {.status = 401}, "AuthError: "},
      {{{"version", "two"}}, {}, "ValueError: manifest version: "},
      {{{"era_number", Value()}}, {}, "TypeError: manifest era_number: "},
      {{{"files", Document{{ALPHA.path, "text"}}}}, {}, "TypeError: the manifest's entry of features/alpha.arrow is not a JSON object"},
  };
  const auto manager = open();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.failure);
    Document changed = manifest(1, {ALPHA});
    for (const Member& change : row.changes) changed = changed.with(change.key, change.value);
    manager->_manifest.set(std::make_shared<Manifest>(*neighbours(), Value(changed)));
    server.script("/data/files/" + ALPHA.path, {row.reply});
    EXPECT_THAT(failure_of([&] { return manager->repair({ALPHA.path}); }), StartsWith(row.failure));
    expect_lock_free(*manager);
  }
}

}  // namespace
}  // namespace brackenfen::sync
