#include "sync/base/error.hpp"

#include <gtest/gtest.h>

#include <cerrno>

namespace brackenfen::sync {
namespace {

TEST(ErrorClass, familiesAreThoseOfTheHostLanguage) {
  EXPECT_TRUE(error_class::OverflowError.derives_from(error_class::ArithmeticError));
  EXPECT_FALSE(error_class::URLError.derives_from(error_class::ConnectionError));
}

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

TEST(JSONDecodeError, countsCodePoints) {
  const JSONDecodeError error("Expecting value", "\u00e9\n\U0001F600 x", 8);
  EXPECT_EQ(error.text(), "Expecting value: line 2 column 3 (char 4)");
  EXPECT_EQ(error.fields().get("pos"), Value(4));
  EXPECT_EQ(error.fields().get("msg"), Value("Expecting value"));
}

}  // namespace
}  // namespace brackenfen::sync
