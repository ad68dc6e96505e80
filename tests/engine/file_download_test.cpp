#include "sync/transport/http.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using Ranges = std::vector<std::string>;

constexpr const char* PATH = "features/f.arrow";
constexpr const char* STAGING = "features/f.arrow.tmp";
constexpr const char* DATA_PATH = "/data/files/features/f.arrow";

/// A thousand bytes, none like its neighbours.
std::string thousand_bytes() {
  std::string bytes;
  for (int number = 0; bytes.size() < 1000; ++number) bytes += std::to_string(number) + ",";
  return bytes.substr(0, 1000);
}
const std::string& content() {
  static const std::string& bytes = *new std::string(thousand_bytes());
  return bytes;
}

/// One fresh directory, server and manager for each row of a table.
class Download : public SyncSetup {
 public:
  explicit Download(std::int64_t chunk_bytes = 400) : manager(open()) {
    environment.set("BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", std::to_string(chunk_bytes));
    publish_version(1);
  }

  std::string run() {
    return failure_of([&] { manager->_download_file(*neighbours(), PATH, info, result, options); });
  }
  /// The content of the staging file, or "none".
  [[nodiscard]] std::string staging() const { return directory.contains(STAGING) ? directory.read(STAGING) : "none"; }
  [[nodiscard]] bool landed() const {
    return directory.contains(PATH) && directory.read(PATH) == content() && !directory.contains(STAGING);
  }
  /// Why this download waited, in order.
  [[nodiscard]] std::vector<std::string> wait_reasons() const {
    std::vector<std::string> reasons;
    for (const Document& event : log.events("sync_backoff_wait")) reasons.emplace_back(*event.get("reason").if_text());
    return reasons;
  }

  std::shared_ptr<SyncManager> manager;
  SyncManager::DownloadOptions options;
  SyncResult result;
  Document info{{"kind", "feature"},
                {"size_bytes", 1000},
                {"sha256", _sha256(content())},
                {"_manifest_version", 1},
                {"_manifest_era_id", SyncSetup::ERA}};
};

TEST(FileDownloadTest, takesWhateverTheStagingFileHoldsAndEveryAnswerToARange) {
  const std::string half = content().substr(0, 500), wrong(1000, '?'), longer = content() + std::string(100, '!');
  const Ranges from_zero = {"bytes=0-399", "bytes=400-799", "bytes=800-999"}, twice = {"bytes=500-", "bytes=500-"};
  const auto part = [](std::size_t start, std::size_t size) { return Reply{.status = 206, .body = content().substr(start, size)}; };
  const Reply rest = part(500, 500), whole{.body = content()};
  const Reply cut{.status = 206, .body = rest.body, .cut_after = 250},
      reset{.status = 206, .body = rest.body, .cut_after = 250, .reset = true};
  const Reply whole_reset{.body = content(), .cut_after = 700, .reset = true}, other_reset{.body = wrong, .cut_after = 300, .reset = true};
  const Reply excess{.status = 206, .body = rest.body + std::string(BODY_SLACK_BYTES * 4, '!')};
  struct Row {
    const char* name;
    std::int64_t chunk_bytes;
    std::optional<std::string> staging;
    std::vector<Reply> replies;  ///< empty: as a server of the file answers
    Ranges ranges;
    std::vector<std::string> waits;
  };
  const Row rows[] = {
      {"chunks, nothing here", 400, std::nullopt, {}, from_zero, {}},
      {"chunks, half", 400, half, {}, {"bytes=500-899", "bytes=900-999"}, {}},
      {"chunks, whole", 400, content(), {}, {}, {}},
      {"chunks, longer", 400, longer, {}, from_zero, {"sha256_mismatch"}},
      {"single, nothing here", 1000, std::nullopt, {}, {""}, {}},
      {"single, half", 1000, half, {}, {"bytes=500-"}, {}},
      {"single, whole", 1000, content(), {}, {"bytes=1000-", ""}, {"SyncError"}},
      {"single: a 200 replaces what is here", 1000, "longer than the file" + content(), {whole}, {"bytes=1020-"}, {}},
      {"single: a short body is resumed", 1000, half, {cut, part(750, 250)}, {"bytes=500-", "bytes=750-"}, {"partial_transfer"}},
      {"single: a broken body leaves nothing", 1000, half, {reset, rest}, twice, {"ConnectionResetError"}},
      {"single: a broken 200 leaves nothing", 1000, half, {whole_reset, rest}, twice, {"ConnectionResetError"}},
      {"single: a broken 200 of other bytes", 1000, half, {other_reset, rest}, twice, {"ConnectionResetError"}},
      {"single: an outage", 1000, half, {{.status = 503}, rest}, twice, {"http_503"}},
      {"single: what goes beyond the size is noticed", 1000, half, {excess, whole}, {"bytes=500-", ""}, {"sha256_mismatch"}},
      {"chunks: a 200 brings the whole file", 400, "", {whole}, {"bytes=0-399"}, {}},
      {"chunks: shorter ones go on", 400, half, {part(500, 100), part(600, 400)}, {"bytes=500-899", "bytes=600-999"}, {}},
      {"chunks: larger ones count", 400, "", {part(0, 900), part(900, 100)}, {"bytes=0-399", "bytes=900-999"}, {}},
      {"chunks: a 416 starts again", 400, half, {{.status = 416}, whole}, {"bytes=500-899", "bytes=0-399"}, {"SyncError"}},
      {"chunks: empty", 400, half, {part(0, 0), rest}, {"bytes=500-899", "bytes=500-899"}, {"SyncError"}},
      {"chunks: broken", 400, half, {reset, rest}, {"bytes=500-899", "bytes=500-899"}, {"ConnectionResetError"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Download download(row.chunk_bytes);
    if (row.replies.empty()) {
      download.server.serve_file(DATA_PATH, content());
    } else {
      download.server.script(DATA_PATH, row.replies);
    }
    if (row.staging) download.directory.write(STAGING, *row.staging);
    EXPECT_EQ(download.run(), "");
    EXPECT_TRUE(download.landed());
    EXPECT_EQ(download.ranges(PATH), row.ranges);
    EXPECT_EQ(download.wait_reasons(), row.waits);
    EXPECT_EQ((std::tuple(download.result.bytes_downloaded, download.result.features_downloaded)), (std::tuple(1000, 1)));
    const bool had_bytes = row.staging && !row.staging->empty();
    EXPECT_EQ(download.log.events("range_resume").empty(), !had_bytes && row.waits.empty());
    const bool was_reset = row.ranges == Ranges{"bytes=1000-", ""} || row.ranges == Ranges{"bytes=500-899", "bytes=0-399"};
    EXPECT_THAT(download.log.events("range_resume_reset"), SizeIs(was_reset ? 1 : 0));
  }
}

TEST(FileDownloadTest, endsWithoutARetryWhereOneCannotHelp) {
  const std::string half = content().substr(0, 500);
  const std::string wrong(1000, '?');
  const std::string moved_on = "ManifestSupersededError: Manifest advanced while downloading features/f.arrow; refreshing before retry";
  const std::string failed = "PermanentDownloadError: Download failed for features/f.arrow: HTTP ";
  const std::string incomplete = "IntegrityError: Incomplete download for features/f.arrow: got 501 bytes, expected 1000";
  const std::string damaged =
      "IntegrityError: Checksum failure for features/f.arrow: expected " + _sha256(content()) + ", got " + _sha256(wrong);
  struct Row {
    const char* name;
    std::int64_t chunk_bytes;
    Reply reply;
    std::string failure;
    std::string staging;
    const char* where_superseded;  ///< what a newer manifest names as the reason; null where the failure stays as it is
    const char* field = "";        ///< and what it tells besides
  };
  const Row rows[] = {
      {"gone", 400, {.status = 404}, failed + "404", half, "http_404", "status"},
      {"a 200 in the middle", 400, {.body = content()}, failed + "200", half, "http_200", "range_start"},
      {"token refused", 1000, {.status = 401}, "AuthError: Authentication failed while downloading features/f.arr", half, nullptr},
      {"final", 1000, {.status = 503, .body = R"({"retryable": false})"}, "SyncUnavailableError: BrackenFen data sync un", half, nullptr},
      {"cut, and no retry wanted", 1000, {.status = 206, .body = "x"}, incomplete, half + "x", "partial_transfer", "actual_size"},
      {"wrong, and no retry wanted", 1000, {.body = wrong}, damaged, wrong, "sha256_mismatch", "actual_sha"},
  };
  for (const Row& row : rows) {
    for (const bool newer : {false, true}) {
      SCOPED_TRACE(std::string(row.name) + (newer ? ", superseded" : ""));
      const bool superseded = newer && row.where_superseded != nullptr;
      Download download(row.chunk_bytes);
      if (newer) download.publish_version(2);
      download.options.retry_partial_transfer = newer;  // a newer manifest is asked for before a retry
      download.options.retry_checksum_mismatch = newer;
      download.server.script(DATA_PATH, {row.reply});
      download.directory.write(STAGING, half);
      EXPECT_THAT(download.run(), StartsWith(superseded ? moved_on : row.failure));
      EXPECT_EQ(download.staging(), superseded ? "" : row.staging);
      EXPECT_THAT(download.ranges(PATH), SizeIs(1));
      EXPECT_THAT(download.wait_reasons(), IsEmpty());
      EXPECT_EQ(download.result, SyncResult());
      const std::vector<Document> events = download.log.events("manifest_superseded");
      ASSERT_THAT(events, SizeIs(superseded ? 1 : 0));
      if (superseded) {
        EXPECT_EQ(events[0].get("reason"), Value(row.where_superseded));
        EXPECT_EQ(events[0].get("expected_size"), Value(1000));
        EXPECT_TRUE(events[0].contains(row.field));
      }
    }
  }
}

TEST(FileDownloadTest, anEmptyChunkOfANewerManifestIsNotAskedForAgain) {
  Download download(400);
  download.publish_version(2);
  download.server.script(DATA_PATH, {{.status = 206}});
  EXPECT_THAT(download.run(), StartsWith("ManifestSupersededError: "));
  EXPECT_EQ(download.log.events("manifest_superseded").at(0).get("reason"), Value("empty_range"));
}

TEST(FileDownloadTest, theRepairBoundCountsEveryRetryBefore) {
  const std::string wrong(1000, '?');
  const std::tuple<const char*, std::size_t, std::size_t, std::size_t> rows[] = {
      {"", 0, 4, 3}, {"0", 0, 1, 0}, {"1", 0, 2, 1}, {"", 2, 4, 1}, {"", 5, 6, 0}};
  for (const auto& [bound, empty_answers_before, transfers, repairs] : rows) {
    SCOPED_TRACE(std::string(bound) + " after " + std::to_string(empty_answers_before));
    Download download(1000);
    download.environment.set("BRACKENFEN_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS", bound);
    std::vector<Reply> replies(empty_answers_before);
    replies.push_back({.body = wrong});
    download.server.script(DATA_PATH, replies);
    EXPECT_EQ(download.run(),
              "IntegrityError: Checksum failure for features/f.arrow: server data inconsistent after unchanged manifest repair bound; "
              "contact BrackenFen. expected " +
                  _sha256(content()) + ", got " + _sha256(wrong));
    EXPECT_THAT(download.ranges(PATH), SizeIs(transfers));
    EXPECT_THAT(download.log.events("checksum_repair"), SizeIs(repairs));
    EXPECT_EQ(download.staging(), "");
    ASSERT_THAT(download.log.events("checksum_repair_exhausted"), SizeIs(1));
    const Document exhausted = download.log.events("checksum_repair_exhausted").front();
    EXPECT_EQ(exhausted.get("count"), Value(transfers));
    EXPECT_EQ(exhausted.get("next_action"), Value("Action: contact_brackenfen"));
  }
}

TEST(FileDownloadTest, aFileOfAnotherSizeThanStatedIsNotAskedForForEver) {
  const std::string shrunk = content().substr(0, 600), at_bound = "IntegrityError: Checksum failure for features/f.arrow: server data inc";
  struct Row {
    std::int64_t chunk_bytes;
    int version;
    bool checksum_retries;
    std::string failure;
    std::vector<std::string> events;  ///< the reason of each
  };
  const Row rows[] = {
      {400, 1, true, at_bound, {"http_416", "http_416", "http_416", "checksum_repair_exhausted"}},
      {400, 2, true, "ManifestSupersededError: ", {"http_416", "manifest_superseded"}},
      {400, 1, false, "IntegrityError: Checksum failure for features/f.arrow: expected ", {"http_416"}},
      {1000, 1, true, at_bound, {"http_416", "checksum_repair_exhausted"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.chunk_bytes) + row.failure);
    Download download(row.chunk_bytes);
    download.options.retry_checksum_mismatch = row.checksum_retries;
    download.server.serve_file(DATA_PATH, shrunk);
    download.publish_version(row.version);
    EXPECT_THAT(download.run(), StartsWith(row.failure));
    std::vector<std::string> told;
    for (const Document& event : download.log.events("range_resume_reset")) told.emplace_back(*event.get("reason").if_text());
    for (const char* type : {"manifest_superseded", "checksum_repair_exhausted"}) {
      told.insert(told.end(), download.log.events(type).size(), type);
    }
    EXPECT_EQ(told, row.events);
    EXPECT_EQ(download.staging(), row.checksum_retries ? "" : shrunk);
  }
}

TEST(FileDownloadTest, whatTheEntryDoesNotStateIsNotChecked) {
  const std::pair<Document, std::string> rows[] = {
      {{}, content()},
      {{{"sha256", _sha256(content())}}, content()},
      {{{"size_bytes", 0}, {"sha256", Value()}}, content()},
      {{{"size_bytes", 0}, {"sha256", _sha256("")}}, ""},
      {{{"size_bytes", 1000}}, content() + "and more"},
      {{{"size_bytes", " 1_000 "}}, content()},
  };
  for (const auto& [info, body] : rows) {
    Download download(1000);
    download.info = info;
    download.server.script(DATA_PATH, {{.body = body}});
    EXPECT_EQ(download.run(), "");
    EXPECT_EQ(download.directory.read(PATH), body);
    EXPECT_EQ(download.result.features_downloaded, 0);
  }
}

TEST(FileDownloadTest, aFolderThatBecomesALinkLeadsNowhere) {
  const TemporaryDirectory elsewhere;
  for (const bool inside : {false, true}) {
    Download download(1000);
    const std::string folder = download.directory / "features", target = inside ? download.directory / "moved" : elsewhere.path();
    download.server.script(DATA_PATH, {{.body = "short"}, {.body = content()}});
    download.options.retry_status_callback = [&](double) {
      std::filesystem::rename(folder, download.directory / "moved");
      std::filesystem::create_directory_symlink(target, folder);
    };
    EXPECT_THAT(download.run(), StartsWith(inside ? "" : "ManifestError: Manifest file path escapes data directory"));
    EXPECT_EQ(download.directory.contains("moved/f.arrow"), inside);
    EXPECT_THAT(elsewhere.files(), IsEmpty());

    Download landing(1000);
    landing.server.serve_file(DATA_PATH, content());
    landing.files.before(FaultFiles::Call::Rename, [&] {
      std::filesystem::rename(landing.directory / "features", landing.directory / "moved");
      std::filesystem::create_directory_symlink(elsewhere.path(), landing.directory / "features");
    });
    EXPECT_EQ(landing.run(), "");
    EXPECT_THAT(elsewhere.files(), IsEmpty());
  }
}

TEST(FileDownloadTest, anErrorOfTheCallbackIsNotRetried) {
  Download download(1000);
  download.server.script(DATA_PATH, {{.body = "short"}});
  download.options.retry_status_callback = [](double) { throw SyncError("the host's own"); };
  EXPECT_EQ(download.run(), "SyncError: the host's own");
  EXPECT_THAT(download.ranges(PATH), SizeIs(1));
}

}  // namespace
}  // namespace brackenfen::sync
