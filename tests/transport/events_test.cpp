#include "sync/transport/events.hpp"

#include <gmock/gmock.h>

#include <functional>

#include "sync/base/values/json.hpp"
#include "sync/transport/event_counts.hpp"
#include "sync/transport/outage_status.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/recording_log.hpp"

namespace brackenfen::sync {
namespace {

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

TEST(Events, areHeldBackAfterTenOfAKindUnlessTheyMatter) {
  const auto logged = [](const std::function<void(int)>& emit) {
    const RecordingLog log;
    for (int count = 1; count <= 12; ++count) emit(count);
    return log.entries().size();
  };
  const auto retry = [](int count, const char* reason, Document fields = {}) { _log_sync_event("http_retry", "f", count, reason, fields); };
  EXPECT_EQ(logged([&](int count) { retry(count, "http_503", {{"bytes_existing", count}, {"actual_size", count}}); }), 10U);
  EXPECT_EQ(
      event_counts().all(),
      (std::vector<std::pair<EventKey, std::int64_t>>{{{{"event_type", "'http_retry'"}, {"file", "'f'"}, {"reason", "'http_503'"}}, 12}}));
  EXPECT_EQ(logged([&](int count) { retry(count, count % 2 == 0 ? "a" : "b"); }), 12U);
  EXPECT_THAT(event_counts().all(), testing::SizeIs(2));
  EXPECT_EQ(logged([&](int count) { retry(count, "a", {{"status", 500 + count}}); }), 12U);
  EXPECT_EQ(logged([&](int count) { retry(count, "a", {{"next_action", "reauthenticate"}}); }), 12U);
  for (const char* type : {"checksum_repair_exhausted", "sync_recovered_status", "anything_else"}) {
    EXPECT_EQ(logged([&](int count) { _log_sync_event(type, "f", count, "r"); }), 12U) << type;
  }
  EXPECT_EQ(logged([](int) { _emit_brackenfen_sync_event({{"event_type", "sync_unavailable_status"}, {"retryable", false}}); }), 12U);
  EXPECT_THAT(event_counts().all(), testing::IsEmpty());
}

TEST(OutageStatus, saysWhatHappenedAndWhatToDo) {
  FakeClock clock;
  Seams seams = Seams::real();
  seams.clock = &clock;
  struct Row {
    const char* details;
    const char* action;
    LogLevel level;
  };
  const Row rows[] = {
      {"{}", "retry_later", LogLevel::Info},
      {R"({"error_code": "AUTH_EXPIRED"})", "reauthenticate", LogLevel::Warning},
      {R"({"error_code": "", "error": "E401"})", "reauthenticate", LogLevel::Warning},
      {R"({"dependency": "Wallet_Token"})", "reauthenticate", LogLevel::Warning},
      {R"({"dependency": "OAuth", "recovery": "operator_fix_required"})", "reauthenticate", LogLevel::Warning},
      {R"({"recovery": "Operator_Fix_Required"})", "contact_brackenfen", LogLevel::Warning},
      {R"({"recovery": "operator_fix_required soon"})", "retry_later", LogLevel::Info},
      {R"({"reason": "store UNCONFIGURED"})", "contact_brackenfen", LogLevel::Warning},
      {R"({"retryable": 0, "reason": ""})", "retry_later", LogLevel::Warning},
      {R"({"retryable": false})", "retry_later", LogLevel::Warning},
  };
  const auto emit = [&](const char* details, float started_at) {
    return _emit_sync_unavailable_status(seams, *seams.neighbours->bind(), "sync_unavailable_status", "https://h/p?q", {503},
                                         {"TimeoutError"}, *parse_json(details).if_document(), started_at);
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.details);
    const RecordingLog log;
    const Document event = emit(row.details, 0);
    EXPECT_EQ(_sync_unavailable_action_recovery(*parse_json(row.details).if_document()), row.action);
    EXPECT_THAT(std::string(*event.get("next_action").if_text()), testing::HasSubstr(std::string("Action: ") + row.action + " ("));
    EXPECT_EQ(log.entries().at(0).level, row.level);
  }
  EXPECT_EQ(emit("{}", 100),
            (Document{{"event_type", "sync_unavailable_status"},
                      {"endpoint", "/p"},
                      {"status_sequence", List{503}},
                      {"exception_sequence", List{"TimeoutError"}},
                      {"last_server_error_code", ""},
                      {"dependency", "network"},
                      {"retryable", true},
                      {"elapsed_seconds", 0.0},
                      {"recovery", "retry_with_backoff"},
                      {"local_data_status", "intact and preserved, but not run because fresh data is required"},
                      {"next_action",
                       "The data server cannot be reached or cannot answer at the moment. Action: retry_later (nothing needs to "
                       "be done, the request is repeated until the server is back)."}}));
  EXPECT_TRUE(emit(R"({"retryable": 0})", 0).get("retryable").is_exactly(false));
  EXPECT_EQ(emit(R"({"reason": ""})", 0).get("reason"), Value(""));
}

}  // namespace
}  // namespace brackenfen::sync
