// What people read: the texts of errors and of the log.
#include "sync/base/error.hpp"

#include <gtest/gtest.h>

#include <cerrno>

#include "sync/base/log.hpp"

namespace brackenfen::sync {
namespace {

TEST(OsError, readsAsPythonPrintsIt) {
  const struct {
    int number;
    const char* path;
    const char* second_path;
    const ErrorClass& family;
    const char* text;
  } rows[] = {
      {ENOENT, "a'b", "", error_class::FileNotFoundError, "[Errno 2] No such file or directory: \"a'b\""},
      {EXDEV, "a", "b", error_class::OSError, "[Errno 18] Invalid cross-device link: 'a' -> 'b'"},
      {EACCES, "", "", error_class::PermissionError, "[Errno 13] Permission denied"},
      {EAGAIN, "", "", error_class::BlockingIOError, "[Errno 11] Resource temporarily unavailable"},
      {ETIMEDOUT, "", "", error_class::TimeoutError, "[Errno 110] Connection timed out"},
      {9999, "", "", error_class::OSError, "[Errno 9999] Unknown error 9999"},
  };
  for (const auto& row : rows) {
    const Error error = os_error(row.number, row.path, row.second_path);
    EXPECT_EQ(&error.error_class(), &row.family) << row.text;
    EXPECT_EQ(error.text(), row.text);
    EXPECT_EQ(error.fields().get("errno"), Value(row.number));
  }
  EXPECT_TRUE(os_error(EACCES).fields().get("filename").is_null());
  EXPECT_EQ(os_error(EXDEV, "a", "b").fields().get("filename2"), Value("b"));
}

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
