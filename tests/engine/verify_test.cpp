#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>

#include "sync/neighbours/rotation_state.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class VerifyTest : public testing::Test, protected SyncSetup {
 protected:
  /// A manager whose record lists `entries`; nothing is fetched for it.
  std::shared_ptr<SyncManager> knowing(std::vector<Member> entries) {
    auto manager = open();
    manager->_manifest.set(std::make_shared<Manifest>(
        *neighbours(), Value(Document{{"era_number", ERA}, {"version", 1}, {"files", Document(std::move(entries))}})));
    return manager;
  }
  static VerifyResult found(std::vector<std::string> corrupted, std::vector<std::string> missing) {
    return {.valid = corrupted.empty() && missing.empty(), .corrupted_files = std::move(corrupted), .missing_files = std::move(missing)};
  }
};

RotationStateRef active_paths(std::vector<Text> paths) {
  auto state = std::make_shared<BuiltinRotationState>();
  state->active_paths = std::move(paths);
  return state;
}

TEST_F(VerifyTest, nothingIsWrongWithoutAManifest) { EXPECT_EQ(open()->verify(), VerifyResult{}); }

TEST_F(VerifyTest, eachFileIsJudgedByItsSizeAndItsBytes) {
  enum class Verdict { Good, Corrupted, Missing };
  const PublishedFile file{"features/a.arrow", "content"};
  const Document entry = file.entry();
  struct Row {
    const char* name;
    Value entry;
    std::optional<std::string> on_disk;
    Verdict verdict;
  };
  const Row rows[] = {
      {"as promised", entry, file.content, Verdict::Good},
      {"not there", entry, std::nullopt, Verdict::Missing},
      {"another size", entry, "contents", Verdict::Corrupted},
      {"other bytes of the same size", entry, "Content", Verdict::Corrupted},
      {"no entry", "text", file.content, Verdict::Missing},
      {"not for this platform", entry.with("kind", "vault_module").with("platform", "amiga_68k"), std::nullopt, Verdict::Good},
      {"without a digest", entry.with("sha256", ""), "Content", Verdict::Good},
      {"without a digest, another size", entry.with("sha256", ""), "contents", Verdict::Corrupted},
      {"without a size", Document{{"sha256", _sha256(file.content)}}, file.content, Verdict::Corrupted},
      {"without a size, empty", Document{{"sha256", _sha256("")}}, "", Verdict::Good},
      {"a size that is none", entry.with("size_bytes", "7"), file.content, Verdict::Corrupted},
      {"a digest that is none", entry.with("sha256", 5), file.content, Verdict::Corrupted},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const TemporaryDirectory fresh;
    const auto manager = knowing({{file.path, row.entry}});
    manager->_data_dir.set(fresh.path());
    if (row.on_disk) fresh.write(file.path, *row.on_disk);
    const VerifyResult expected = row.verdict == Verdict::Good        ? found({}, {})
                                  : row.verdict == Verdict::Corrupted ? found({file.path}, {})
                                                                      : found({}, {file.path});
    EXPECT_EQ(manager->verify(), expected);
  }
}

TEST_F(VerifyTest, theHashCacheIsNotAsked) {
  const PublishedFile file{"a", "content"};
  directory.write("a", "Content");
  const auto manager = knowing({{"a", file.entry()}});
  manager->hash_cache()._remember_local_sha("a", directory / "a", _sha256(file.content));
  EXPECT_EQ(manager->verify(), found({"a"}, {}));
}

TEST_F(VerifyTest, theListsFollowTheOrderOfTheManifestOrOfTheActivePaths) {
  std::vector<Member> entries;
  std::vector<std::string> corrupted, missing;
  for (int index = 0; index < 500; ++index) {
    const std::string path = "folder" + std::to_string(index * 7 % 50) + "/" + std::to_string(index);
    entries.push_back({path, PublishedFile{path, "content"}.entry()});
    if (index % 3 == 0) corrupted.push_back(path);
    if (index % 3 == 1) missing.push_back(path);
    if (index % 3 != 1) directory.write(path, index % 3 == 0 ? "Content" : "content");
  }
  const auto manager = knowing(entries);
  EXPECT_EQ(manager->verify(), found(corrupted, missing));

  manager->_active_rotation_state.set(active_paths({missing[1], "unknown", corrupted[5], missing[0], corrupted[2]}));
  EXPECT_EQ(manager->verify(), found({corrupted[5], corrupted[2]}, {missing[1], "unknown", missing[0]}));
}

TEST_F(VerifyTest, theFirstFileThatCannotBeJudgedEndsIt) {
  const PublishedFile file{"a", "content"};
  std::vector<Member> entries;
  for (int index = 0; index < 100; ++index) {
    entries.push_back({"good" + std::to_string(index), file.entry()});
    directory.write("good" + std::to_string(index), file.content);
  }
  // A directory of the size that the entry states passes the first test and cannot be read.
  struct stat status {};
  for (const char* name : {"first", "second"}) {
    ASSERT_EQ(::mkdir((directory / name).c_str(), 0755), 0);
    ASSERT_EQ(::stat((directory / name).c_str(), &status), 0);
    entries.push_back({name, file.entry().with("size_bytes", status.st_size)});
  }
  entries.push_back({"../outside", file.entry()});
  EXPECT_EQ(failure_of([&] { return knowing(entries)->verify(); }),
            "IsADirectoryError: [Errno 21] Is a directory: '" + (directory / "first") + "'");
  entries.erase(entries.end() - 3, entries.end() - 1);
  EXPECT_THAT(failure_of([&] { return knowing(entries)->verify(); }), StartsWith("ManifestError: "));
}

}  // namespace
}  // namespace brackenfen::sync
