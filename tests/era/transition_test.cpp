#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <future>
#include <map>
#include <thread>

#include "sync/base/values/convert.hpp"
#include "sync/era/staged_moves.hpp"
#include "tests/support/host_interrupt.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* ERA_PATH = "/era/current";
constexpr const char* STAGING = ".transition_era8.tmp";
const PublishedFile KEPT{"features/us/signal_is/kept.arrow", "the same in both eras"};
const PublishedFile OLD{"features/us/signal_is/changed.arrow", "as it was"};
const PublishedFile NEW{OLD.path, "as it is in the next era"};
const PublishedFile GONE{"features/us/signal_is/gone.arrow", "of the old era alone"};
const PublishedFile FRESH{"features/us/strategy_is/fresh.arrow", "of the new era alone"};

/// A manager in era 7; the server is in era 8.
class TransitionTest : public testing::Test, protected SyncSetup {
 protected:
  void SetUp() override { begin_in_era_7(); }
  void begin_in_era_7() {
    publish_era(7, {KEPT, OLD, GONE});
    for (const std::string& path : {OLD.path, FRESH.path, std::string("manifest.json")}) std::filesystem::remove(directory / path);
    manager = open();
    static_cast<void>(manager->sync());
    static_cast<void>(asked());
    publish_era(8, {KEPT, NEW, FRESH});
  }

  static Reply era(int number, const std::string& state = "active", const std::string& more = "") {
    return {.body = R"({"era_number": )" + std::to_string(number) + R"(, "state": ")" + state + "\"" + more + "}"};
  }
  static Reply body(const Document& document) { return {.body = write_json(document, JsonForm::InsertionOrder)}; }
  /// `count` answers of one kind, then another one that stays.
  static std::vector<Reply> first(std::size_t count, const Reply& before, const Reply& after) {
    std::vector<Reply> replies(count, before);
    replies.push_back(after);
    return replies;
  }

  void publish_era(int number, const std::vector<PublishedFile>& published) {
    publish_documents(number);
    publish(number, published, number);
    server.script(ERA_PATH, {era(number)});
  }

  void transit(const Value& number = 8) {
    manager->trigger_era_transition(
        number, [this] { calls.emplace_back("kill"); }, [this] { calls.emplace_back("restart"); });
  }
  std::string failure(const Value& number = 8) {
    calls.clear();
    return failure_of([&] { return transit(number), 0; });
  }
  /// Every live file and its content.
  [[nodiscard]] std::map<std::string, std::string> live() const {
    std::map<std::string, std::string> found;
    for (const std::string& path : directory.files()) {
      if (path != ".sync_hash_cache.json") found[path] = directory.read(path);
    }
    return found;
  }
  void expect_era_8() const {
    EXPECT_EQ(manager->get_manifest()->era_number(), Value(8));
    EXPECT_EQ(directory.read(KEPT.path), KEPT.content);
    EXPECT_EQ(directory.read(NEW.path), NEW.content);
    EXPECT_EQ(directory.read(FRESH.path), FRESH.content);
    EXPECT_FALSE(directory.contains(GONE.path));
    EXPECT_TRUE(manager->verify().valid);
  }
  void expect_nothing_left() const {
    for (const std::string& path : directory.files()) {
      EXPECT_THAT(path, Not(AnyOf(HasSubstr(".tmp"), StartsWith(".transition"), StartsWith(".sync_flock"))));
    }
    EXPECT_FALSE(manager->_in_transition);
    EXPECT_EQ(manager->status(), Value());
  }

  std::shared_ptr<SyncManager> manager;
  std::vector<std::string> calls;
};

TEST_F(TransitionTest, aStopGoesOnBesideATransitionThatLasts) {
  const Reply lasting[] = {{.status = 503}, {.body = NEW.content, .delay = std::chrono::hours(1)}};  // an outage, a slow file
  std::atomic<std::thread::id> pass_thread;
  std::atomic<bool> pass_waits{false};
  const HostInterrupt asked_for([&] {
    if (std::this_thread::get_id() == pass_thread.load()) pass_waits = true;
  });
  for (const Reply& reply : lasting) {
    server.script(NEW.url_path(), {reply});
    const std::size_t before = requests(NEW.url_path());
    const auto exit = std::make_shared<InterruptToken>();
    const auto interruptible = [&](const auto& work) {
      return std::async(std::launch::async, [exit, work] {
        const InterruptScope scope(exit);
        EXPECT_THROW(work(), Interrupted);
      });
    };
    manager->start();
    auto transition = interruptible([this] { transit(); });
    while (requests(NEW.url_path()) == before) std::this_thread::yield();
    auto pass = interruptible([&] {
      pass_thread = std::this_thread::get_id();
      static_cast<void>(manager->sync());
    });
    while (!pass_waits) std::this_thread::yield();  // for the directory
    manager->stop();
    EXPECT_TRUE(manager->_in_transition);
    EXPECT_FALSE(manager->_running);
    exit->trip();
    transition.get();
    pass.get();
    expect_nothing_left();
    pass_waits = false;
  }
}

TEST_F(TransitionTest, movesTheDirectoryToTheNextEra) {
  directory.write("era_6/old", "12345");
  for (const PublishedFile& file : {KEPT, NEW, FRESH}) directory.write(file.path + ".tmp", "of a download that goes on by itself");
  std::vector<std::string> landed;
  manager->runtime_freshness_guard.set(std::make_shared<CallingGuard>(
      [&](const std::string& path, const std::string& kind, const std::string&) { landed.push_back(path + " " + kind); }));
  transit();
  EXPECT_THAT(landed, ElementsAre(NEW.path + " feature", FRESH.path + " feature", std::string(FUNCTIONS) + " functions",
                                  std::string(VOCABULARY) + " vocabulary"))
      << "once each, where it goes live";
  // The gates; a question before each file; then one before files move, one behind manifest.json, one before the searches.
  std::vector<std::string> expected = {ERA_PATH, "/data/manifest"};
  for (const PublishedFile& file : {NEW, KEPT, FRESH, documents(8)[1], documents(8)[0]}) {
    expected.emplace_back(ERA_PATH);
    if (file.path != KEPT.path) expected.push_back(file.url_path());
  }
  for (const char* path : {"/data/shuffle", ERA_PATH, ERA_PATH, ERA_PATH}) expected.emplace_back(path);
  EXPECT_EQ(asked(), expected);
  EXPECT_THAT(calls, ElementsAre("kill", "restart"));
  expect_era_8();
  EXPECT_EQ(directory.read("manifest.json"), body(manifest(8, {KEPT, NEW, FRESH}, 8)).body);
  EXPECT_EQ(manager->_vocabulary.get()->get("us").if_document()->get("era_number"), Value(8));
  EXPECT_THAT(directory.read("shuffle_seed.enc.meta.json"), HasSubstr("8"));
  manager->_cleanup_thread()->join(Clock::real(), 10);
  EXPECT_FALSE(directory.contains("era_6"));
  expect_nothing_left();
  EXPECT_THAT(log.messages(LogLevel::Debug), Contains("Authentication: the data is in era 8 now"));
  EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(TransitionTest, aFilledDirectoryNeedsNoEraToLeave) {
  TemporaryDirectory empty;
  SyncManager::Options fresh = options();
  fresh.data_dir = empty.path();
  manager = std::make_shared<SyncManager>(fresh);
  server.script(ERA_PATH, {era(8, "closing")});
  EXPECT_THAT(failure(), HasSubstr("returned state='closing'")) << "entering an era is an advance, and takes an active one";
  server.script(ERA_PATH, {era(8)});
  transit("8");
  EXPECT_EQ(empty.read(FRESH.path), FRESH.content);
  EXPECT_THAT(log.messages(LogLevel::Debug), Contains("Search tracking: " + empty.path() + " went from era None to era 8"));
}

TEST_F(TransitionTest, nothingLiveChangesBeforeTheSecondConfirmation) {
  struct Row {
    const char* name;
    std::function<void()> set_up;
    std::string failure;
  };
  const std::string refused = "EraError: Active era_number=7 does not match requested transition era_number=8";
  const auto manifest_8 = [&](const char* key, const Value& value) {
    publish_manifest(manifest(8, {KEPT, NEW, FRESH}, 8).with(key, value));
  };
  const Reply seed_7{.headers = {{"X-Era-Id", "7"}}, .body = std::string(60, 's')};
  const Row rows[] = {
      {"another era", [&] { server.script(ERA_PATH, {era(7)}); }, refused},
      {"library too old", [&] { server.script(ERA_PATH, {era(8, "active", R"(, "min_library_version": "99.1")")}); },
       "LibraryUpdateRequired: brackenfen >= 99.1 required for era 8. Build a local wheel with build_wheel() and install it with: "
       "pip install --upgrade /path/to/brackenfen-*.whl"},
      {"manifest of the era before", [&] { manifest_8("era_number", 7); },
       "EraError: Era transition manifest era_number=7 does not match active era_number=8"},
      {"manifest without era", [&] { manifest_8("era_number", "x"); }, "EraError: Era transition manifest has invalid era_number='x'"},
      {"a file of the library's own",
       [&] {
         publish_era(8, {KEPT, NEW, {".told_era", "x"}});
       },
       "ManifestError: Manifest lists a file of the library's own: .told_era"},
      {"too small a disk", [&] { files.set_free_bytes(0); }, "MandatoryArtifactsTooLargeError: "},
      {"lost file", [&] { server.script(FRESH.url_path(), {{.status = 404}}); }, "PermanentDownloadError: "},
      {"wrong bytes", [&] { server.serve_file(FRESH.url_path(), std::string(FRESH.content.size(), '?')); }, "IntegrityError: "},
      {"no seed", [&] { server.script(SHUFFLE_PATH, {{.status = 404}}); }, "SyncError: Failed to download shuffle seed: HTTP 404"},
      {"seed of another era", [&] { server.script(SHUFFLE_PATH, {seed_7}); }, "EraError: "},
      {"full disk at the seed", [&] { files.fail(FaultFiles::Call::WriteNew, 1, ENOSPC); }, "OSError: [Errno 28]"},
      {"the era goes back while files are staged", [&] { server.script(ERA_PATH, first(3, era(8), era(7))); }, refused},
      {"the era closes while files are staged", [&] { server.script(ERA_PATH, first(3, era(8), era(8, "closing"))); },
       "EraError: Active era confirmation for era_number=8 returned state='closing'"},
      {"the next era opens behind the staging", [&] { server.script(ERA_PATH, first(6, era(8), era(9))); },
       "EraError: Active era_number=9 does not match requested transition era_number=8"},
  };
  const auto before = live();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    publish_era(8, {KEPT, NEW, FRESH});
    files.set_free_bytes(1'000'000'000);
    row.set_up();
    EXPECT_THAT(failure(), StartsWith(row.failure));
    EXPECT_EQ(live(), before);
    EXPECT_EQ(manager->get_manifest()->era_number(), Value(7));
    EXPECT_THAT(calls, ElementsAre("kill")) << "searches stay stopped";
    expect_nothing_left();
  }
  EXPECT_EQ(failure(nullptr), "TypeError: '>' not supported between instances of 'NoneType' and 'int'");
  EXPECT_THAT(calls, IsEmpty());
  publish_era(8, {KEPT, NEW, FRESH});
  EXPECT_EQ(failure(), "");
  expect_era_8();
}

// What happens behind the point of no return is finished by the next attempt.
TEST_F(TransitionTest, aFailureWhileFilesMoveIsMendedByTheNextAttempt) {
  struct Row {
    const char* name;
    std::function<void()> set_up;
    int era_after;
    enum Then { TriedAgain, TriedByTheNextProcess, TriedAgainBehindAnotherProcess } then = TriedAgain;
  };
  const Row rows[] = {
      {"second file", [&] { files.fail(FaultFiles::Call::Rename, 4 + 2 + 2, EIO); }, 7},  // behind four files and two of the seed staged
      {"manifest.json", [&] { files.fail(FaultFiles::Call::WriteNew, 3, ENOSPC); }, 7},
      {"rotation state", [&] { files.fail(FaultFiles::Call::WriteNew, 4, ENOSPC); }, 8},
      {"third confirmation", [&] { server.script(ERA_PATH, first(7, era(8), {.status = 404})); }, 8, Row::TriedByTheNextProcess},
      {"third confirmation, and another process is quicker", [&] { server.script(ERA_PATH, first(7, era(8), {.status = 404})); }, 8,
       Row::TriedAgainBehindAnotherProcess},
      {"last confirmation", [&] { server.script(ERA_PATH, first(8, era(8), era(9))); }, 8},
  };
  int times_told = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    begin_in_era_7();
    const auto other = open();
    row.set_up();
    EXPECT_NE(failure(), "");
    EXPECT_EQ(manager->get_manifest()->era_number(), Value(row.era_after));
    EXPECT_EQ(manager->_vocabulary.get()->get("us").if_document()->get("era_number"), Value(row.era_after));
    EXPECT_THAT(calls, ElementsAre("kill"));
    expect_nothing_left();
    if (row.then == Row::TriedByTheNextProcess) manager = open();

    server.script(ERA_PATH, {era(8)});
    if (row.then == Row::TriedAgainBehindAnotherProcess) other->trigger_era_transition(8), ++times_told;
    EXPECT_EQ(failure(), "") << "as the watcher tries again";
    EXPECT_EQ(directory.read(NEW.path), NEW.content);
    EXPECT_EQ(directory.read(FRESH.path), FRESH.content);
    EXPECT_TRUE(manager->verify().valid);
    const std::vector<std::string> told = log.messages(LogLevel::Debug);
    EXPECT_EQ(std::ranges::count(told, "Search tracking: " + directory.path() + " went from era 7 to era 8"), ++times_told);
    EXPECT_FALSE(directory.contains(".told_era"));
  }
}

TEST_F(TransitionTest, wrongBytesOfADeadEraAreForgiven) {
  for (const int version : {8, 9}) {  // also where the server says that a newer manifest is out
    publish_version(version, version);
    server.script(FRESH.url_path(), {{.body = std::string(FRESH.content.size(), '?')}});
    server.script(ERA_PATH, first(4, era(8), era(9)));  // the fifth question follows the failed checksum
    server.script(MANIFEST_PATH, {body(manifest(8, {KEPT, NEW, FRESH}, 8)), {.status = 404}});
    EXPECT_EQ(failure(), "SyncError: Failed to fetch era 9 manifest: HTTP 404");
    EXPECT_THAT(calls, ElementsAre("kill", "kill"));
  }
}

TEST_F(TransitionTest, cleansUpForTheEraThatOvertookItWhenNobodyElseIsAtWork) {
  const std::string staged = "features/left.arrow.tmp";
  directory.write(staged, "of whoever comes between the two transitions");
  server.script(ERA_PATH, first(1, era(8), era(9)));
  server.script(MANIFEST_PATH, {body(manifest(8, {KEPT, NEW, FRESH}, 8)), {.status = 404}});
  Descriptor worker;
  bool kept = false;
  files.before(FaultFiles::Call::Unlink, [&] {  // of .transition_lock
    worker = Descriptor(::open(directory.path().c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(::flock(worker.get(), LOCK_EX | LOCK_NB), 0);
  });
  const HostInterrupt waiting([&] {
    if (!worker || !directory.contains(".sync_flock")) return;  // until it is waited for
    kept = directory.contains(staged);
    worker = Descriptor();
  });
  EXPECT_EQ(failure(), "SyncError: Failed to fetch era 9 manifest: HTTP 404");
  EXPECT_TRUE(kept);
  expect_nothing_left();
}

TEST_F(TransitionTest, withinAnEraAClosingOneIsGoodEnough) {
  const PublishedFile second{OLD.path, "second edition within the era"};
  publish_documents(7);
  publish_manifest(manifest(8, {KEPT, second}, 7));
  server.serve_file(second.url_path(), second.content);
  server.script(ERA_PATH, {era(7, "closing")});
  for (int time = 0; time < 2; ++time) {
    transit(7);
    EXPECT_EQ(requests(second.url_path()), 2) << "each edition once; an unchanged catalogue is not staged, and none is missed";
    EXPECT_EQ(directory.read(second.path), second.content);
    expect_nothing_left();
  }
  EXPECT_THAT(log.messages(LogLevel::Debug), Not(Contains(StartsWith("Search tracking"))));
}

TEST_F(TransitionTest, whateverStandsInTheStagingPlaceGivesWay) {
  const TemporaryDirectory outside;
  outside.write("precious", "x");
  const std::function<void()> rows[] = {
      [&] { directory.write(std::string(STAGING) + "/features/us/signal_is/changed.arrow", "a leftover"); },
      [&] { directory.write(STAGING, "a file"); },
      [&] { std::filesystem::create_directory_symlink(outside.path(), directory / STAGING); },
      [&] { std::filesystem::create_symlink("nowhere", directory / STAGING); },
      [&] { std::filesystem::create_symlink(outside / "precious", directory / ".transition_lock"); },
  };
  // What a killed transition left is no reason to think the disk full.
  files.set_free_bytes([&] { return std::filesystem::is_directory(directory / STAGING) ? 0 : 1'000'000'000; });
  for (const auto& put : rows) {
    put();
    EXPECT_EQ(failure(), "");
    expect_era_8();
    EXPECT_EQ(outside.read("precious"), "x");
    std::filesystem::remove(directory / ".transition_lock");  // a link there is neither followed nor known to be ours
  }
  manager->trigger_era_transition(8, {}, [&] {  // and so does ours, to whoever takes the lock next
    std::filesystem::remove_all(directory / STAGING);
    directory.write(std::string(STAGING) + "/another", "x");
  });
  EXPECT_TRUE(directory.contains(std::string(STAGING) + "/another"));
}

TEST_F(TransitionTest, oneFileMayHaveSeveralSpellings) {
  const PublishedFile respelled{"features//us/signal_is/kept.arrow", KEPT.content};
  const PublishedFile twice{"features/us/./strategy_is/fresh.arrow", FRESH.content};
  publish_era(8, {respelled, NEW, FRESH, twice});
  for (const PublishedFile& file : {KEPT, FRESH}) server.serve_file(file.url_path(), file.content);
  transit();
  expect_era_8();
}

TEST_F(TransitionTest, stagesNothingInADirectoryThatTookThePlaceOfItsOwn) {
  const std::string moved = directory.path() + ".moved";
  files.before(FaultFiles::Call::Rename, [&] {  // of the first staged file
    std::filesystem::rename(directory.path(), moved);
    std::filesystem::create_directory(directory.path());
  });
  EXPECT_THAT(failure(), StartsWith("FileNotFoundError: "));
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
  std::filesystem::remove_all(directory.path());
  std::filesystem::rename(moved, directory.path());
}

TEST_F(TransitionTest, aFileMayTakeTheNameOfAFolderAndAFolderThatOfAFile) {
  const PublishedFile file{"data/a", "a file of era 7", "data"}, in_folder{"data/b/c/d", "of era 7", "data"};
  const PublishedFile folder[] = {{"data/a/x/y", "now below a folder", "data"}, {"data/a/z", "and another", "data"}};
  const PublishedFile in_place{"data/b", "now a file", "data"};
  publish_era(7, {KEPT, file, in_folder});
  files.unlink(directory / "manifest.json");
  manager = open();
  static_cast<void>(manager->sync());
  publish_era(8, {KEPT, NEW, FRESH, folder[0], folder[1], in_place});
  std::filesystem::create_directory_symlink(directory.path(), directory / NEW.path);
  EXPECT_EQ(failure(), "IsADirectoryError: [Errno 21] Is a directory: '" + directory.path() + "'") << "all of it is in the way";
  std::filesystem::remove(directory / NEW.path);
  directory.write("data/b/foreign", "nobody's");
  const auto before = live();
  EXPECT_EQ(failure(), "IsADirectoryError: [Errno 21] Is a directory: '" + (directory / "data/b") + "'");
  EXPECT_EQ(live(), before) << "nothing has moved";
  files.unlink(directory / "data/b/foreign");
  directory.write("data/b/c/d.tmp", "a part of a download");
  EXPECT_EQ(failure(), "");
  expect_era_8();
  for (const PublishedFile& now : {folder[0], folder[1], in_place}) EXPECT_EQ(directory.read(now.path), now.content);
  expect_nothing_left();
}

TEST(StagedMoves, toAnotherMountAreCopiedBesideTheirPlaceBeforeTheFirstOne) {
  const TemporaryDirectory directory;
  FaultFiles files;
  const StringSet none_departed;
  for (const char* path : {"staged/mounted/a", "staged/mounted/deeper/b"}) directory.write(path, "new");
  directory.write("live/mounted/a", "old");
  for (const bool runs : {false, true}) {
    StagedMoves moves(files, directory / "staged", directory / "live", none_departed,
                      [&](const std::string&, const std::string& other) { return other != directory / "live/mounted"; });
    for (const char* path : {"mounted/a", "mounted/deeper/b"}) moves.add(path);
    EXPECT_EQ(directory.read("live/mounted/.transition_move1." + std::to_string(::getpid()) + ".tmp"), "new");
    EXPECT_EQ(directory.read("live/mounted/a"), "old");
    if (runs) moves.run([](const std::string&) {});
  }
  EXPECT_EQ(directory.read("live/mounted/a"), "new");
  EXPECT_THAT(directory.files(), ElementsAre("live/mounted/a", "live/mounted/deeper/b", "staged/mounted/a", "staged/mounted/deeper/b"));
}

TEST_F(TransitionTest, whatDepartsIsNeverTheLibrarysOwnNorOutside) {
  for (const char* path : {"./manifest.json", "shuffle_seed.enc", "../outside"}) manager->get_manifest()->set_file(path, KEPT.entry());
  transit();
  expect_era_8();
  EXPECT_TRUE(directory.contains("manifest.json") && directory.contains("shuffle_seed.enc"));
}

TEST_F(TransitionTest, lockFilesThatCannotBeWritten) {
  std::filesystem::create_directory(directory / ".transition_lock");
  EXPECT_EQ(failure(), "") << "a signal that cannot be given is no reason to stay behind";
  EXPECT_THAT(warnings(), ElementsAre(StartsWith("Failed to write transition lock file: [Errno 21]")));
  std::filesystem::remove(directory / ".transition_lock");

  publish_era(9, {KEPT});
  std::filesystem::create_directory(directory / ".sync_flock");
  EXPECT_THAT(failure(9), StartsWith("IsADirectoryError: "));
  EXPECT_THAT(calls, IsEmpty());
  EXPECT_TRUE(manager->_in_transition && directory.contains(".transition_lock")) << "whoever cannot take the lock changes nothing more";
}

TEST_F(TransitionTest, anInterruptInTheCleanUpIsRaisedUnlessAnErrorIsOnItsWay) {
  // Logging runs code of the host, and the user may press Ctrl-C in it.
  log.on_write = [](const LogRecord& record) {
    if (std::string_view(record.format).starts_with("best-effort")) throw Interrupted{};
  };
  std::filesystem::create_directory(directory / ".transition_lock");
  EXPECT_THAT(failure(9), StartsWith("EraError: "));
  EXPECT_THROW(transit(), Interrupted);
  expect_era_8();
  EXPECT_FALSE(manager->_in_transition || directory.contains(STAGING));
}

TEST_F(TransitionTest, tellsWhatItWaitsFor) {
  std::vector<std::string> statuses;  // at each request
  token->call_each([&] { statuses.push_back(to_text(manager->status())); });
  server.script(NEW.url_path(), {{.status = 200, .body = NEW.content, .cut_after = 3}, {.status = 206, .body = NEW.content.substr(3)}});
  transit();
  EXPECT_EQ(std::ranges::count(statuses, "Download interrupted, retrying in 1s (0/5 files complete)"), 3)
      << "until the next download begins";
}

}  // namespace
}  // namespace brackenfen::sync
