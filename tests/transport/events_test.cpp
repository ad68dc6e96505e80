#include "sync/transport/events.hpp"

#include <gmock/gmock.h>

#include "sync/transport/unavailable.hpp"
#include "tests/support/recording_log.hpp"

namespace brackenfen::sync {
namespace {

TEST(Events, reachTheLogAsOneLineAndAsThemselves) {
  const RecordingLog log;
  _log_sync_event("http_retry", "a/b.arrow", " 2 ", "http_503", {{"status", 503}, {"error_code", nullptr}, {"retryable", false}});
  _log_sync_event("x", "", "abc", "");
  ASSERT_EQ(log.entries().size(), 2U);
  const RecordingLog::Entry first = log.entries().at(0);
  EXPECT_EQ(first.level, LogLevel::Info);
  EXPECT_EQ(first.message, R"(brackenfen_sync_event {"count": 2, "event_type": "http_retry", "file": "a/b.arrow", )"
                           R"("reason": "http_503", "retryable": false, "status": 503})");
  EXPECT_EQ(first.event, (Document{{"event_type", "http_retry"},
                                   {"file", "a/b.arrow"},
                                   {"count", 2},
                                   {"reason", "http_503"},
                                   {"status", 503},
                                   {"retryable", false}}));
  EXPECT_EQ(log.entries().at(1).event, (Document{{"event_type", "x"}, {"file", ""}, {"count", 0}, {"reason", ""}}));
}

TEST(Events, areWarningsWhereAnOperatorIsNeeded) {
  const std::vector<std::pair<Document, std::string>> rows{
      {{}, "info"},
      {{{"event_type", "http_retry"}, {"retryable", false}}, "info"},
      {{{"event_type", "sync_unavailable_status"}, {"retryable", 0}}, "info"},
      {{{"event_type", "sync_unavailable_status"}, {"retryable", false}}, "warning"},
      {{{"event_type", "checksum_repair_exhausted"}}, "warning"},
      {{{"event_type", "http_retry"}, {"next_action", "Action: CONTACT_BrackenFen now"}}, "warning"},
      {{{"event_type", "http_retry"}, {"next_action", "Reauthenticate"}}, "warning"},
      {{{"event_type", "http_retry"}, {"recovery", "Operator_Fix_Required"}}, "warning"},
      {{{"event_type", "http_retry"}, {"recovery", "reauthenticate"}}, "warning"},
      {{{"event_type", "sync_recovered_status"}, {"recovery", "reauthenticate"}}, "info"},
  };
  for (const auto& [event, level] : rows) EXPECT_EQ(_sync_event_level_name(event), level) << testing::PrintToString(event.size());
}

TEST(SyncUnavailable, isTypedOnlyWhereTheServerSaysMoreThanACode) {
  const auto typed = [](const SyncUnavailableError::Details& details) {
    return SyncUnavailableError(details).fields().get("typed_details");
  };
  EXPECT_TRUE(typed({.server_error_code = "X"}).is_exactly(false));
  EXPECT_TRUE(typed({.retryable = false}).is_exactly(true));
  EXPECT_TRUE(typed({.retryable = false, .typed_details = 0}).is_exactly(false));
}

TEST(Events, shortenUrls) {
  const std::vector<std::array<std::string, 3>> rows{
      // URL, endpoint, file
      {"https://host/data/files/a/b.arrow?x=1#y", "/data/files/a/b.arrow", "a/b.arrow"},
      {"https://host/o/releases/v1/a//b.arrow", "/o/releases/v1/a//b.arrow", "a/b.arrow"},
      {"https://host/era/current/", "/era/current/", "era/current"},
      {"https://host", "https://host", ""},
      {"http://[broken", "http://[broken", ""},
      {"", "<unknown>", ""},
  };
  for (const auto& [url, endpoint, file] : rows) {
    EXPECT_EQ(_sync_endpoint_from_url(url), endpoint);
    EXPECT_EQ(_sync_event_file_from_url(url), file);
  }
}

}  // namespace
}  // namespace brackenfen::sync
