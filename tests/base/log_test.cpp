#include "sync/base/log.hpp"

#include <gtest/gtest.h>

namespace brackenfen::sync {
namespace {

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
