#include "sync/base/log.hpp"

#include <gtest/gtest.h>

namespace brackenfen::sync {
namespace {

TEST(FormatMessage, followsPythonsLogging) {
  const struct {
    const char* format;
    std::vector<Value> arguments;
    const char* message;
  } rows[] = {
      {"%s and %r", {"it's", "it's"}, "it's and \"it's\""},
      {"%s %s", {nullptr, List{1, "a"}}, "None [1, 'a']"},
      {"%d/%i of %d", {3, 4.9, true}, "3/4 of 1"},
      {"%d", {Value::integer_from_decimal("123456789012345678901234567890")}, "123456789012345678901234567890"},
      {"%.1fs %05.2f %g %x", {1.25, 3.14159, 0.5, 255}, "1.2s 03.14 0.5 ff"},
      {"100%% of %s", {"x"}, "100% of x"},
      {"%s %s", {"one"}, "one %s"},
      {"50%", {}, "50%"},
  };
  for (const auto& row : rows) EXPECT_EQ(format_message({LogLevel::Info, row.format, row.arguments, nullptr}), row.message);
}

TEST(Log, defaultSinkWritesWarningsToStandardError) {
  LogSink* const previous = set_log_sink(nullptr);
  ::testing::internal::CaptureStderr();
  log_debug("hidden");
  log_warning("disk at %d%%", 97);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "WARNING brackenfen.sync: disk at 97%\n");
  set_log_sink(previous);
}

}  // namespace
}  // namespace brackenfen::sync
