#include "sync/transport/settings.hpp"

#include <gmock/gmock.h>

#include <functional>
#include <limits>

#include "tests/support/fake_environment.hpp"
#include "tests/support/recording_log.hpp"

namespace brackenfen::sync {
namespace {

using Variables = std::map<std::string, std::string>;
using namespace testing;

struct NumberRow {
  std::function<double(Environment&)> read;
  Variables variables;
  double expected;
  std::string warning = {};
};

double batch_timeout(Environment& environment) { return _sync_parallel_timeout_seconds(environment, 100, 8).value_or(-1.0); }

TEST(Settings, readTheEnvironmentAnewAndFallBackWithAWarning) {
  constexpr double LARGEST = static_cast<double>(std::numeric_limits<std::int64_t>::max());
  const std::string timeout = "BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS";
  const std::string version_timeout = "BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS";
  const std::string chunk = "BRACKENFEN_SYNC_HTTP_CHUNK_BYTES";
  const std::string read_size = "BRACKENFEN_SYNC_HTTP_RESPONSE_READ_BYTES";
  const std::string reuse = "BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS";
  const std::string repairs = "BRACKENFEN_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS";
  const std::string concurrency = "BRACKENFEN_SYNC_MAX_CONCURRENCY";
  const std::string batch = "BRACKENFEN_SYNC_PARALLEL_TIMEOUT_SECONDS";
  const std::vector<NumberRow> rows{
      {_sync_http_timeout_seconds, {}, 30.0},
      {_sync_http_timeout_seconds, {{"BRACKENFEN_SYNC_HTTP_TIMEOUT", "12"}}, 12.0},
      {_sync_http_timeout_seconds, {{timeout, ""}, {"BRACKENFEN_SYNC_HTTP_TIMEOUT", "12"}}, 30.0},
      {_sync_http_timeout_seconds, {{timeout, " 1_0.5 "}}, 10.5},
      {_sync_http_timeout_seconds, {{timeout, "0"}}, 30.0, "Non-positive " + timeout + "='0'; using 30.0s"},
      {_sync_http_timeout_seconds, {{"BRACKENFEN_SYNC_HTTP_TIMEOUT", "it's"}}, 30.0, "Invalid " + timeout + "=\"it's\"; using 30.0s"},
      {_sync_manifest_version_http_timeout_seconds, {{"BRACKENFEN_SYNC_MANIFEST_VERSION_TIMEOUT_SECONDS", "2"}}, 2.0},
      {_sync_manifest_version_http_timeout_seconds, {{version_timeout, "x"}}, 5.0, "Invalid " + version_timeout + "='x'; using 5.0s"},
      {_sync_http_chunk_bytes, {{chunk, "1.5"}}, 8388608, "Invalid " + chunk + "='1.5'; using 8388608"},
      {_sync_http_chunk_bytes, {{chunk, "99999999999999999999"}}, LARGEST},
      {_sync_http_response_read_bytes, {}, 65536},
      {_sync_http_response_read_bytes, {{read_size, "k"}}, 65536, "Invalid " + read_size + "='k'; using 65536"},
      {reuses_http_connections, {}, 0},
      {reuses_http_connections, {{reuse, " Yes "}}, 1},
      {reuses_http_connections, {{reuse, "0"}}, 0},
      {reuses_http_connections, {{reuse, "2"}}, 0, "Invalid " + reuse + "='2'; using 0"},
      {_sync_max_unchanged_checksum_repairs, {{repairs, "-1"}}, 0},
      {_sync_max_unchanged_checksum_repairs, {{repairs, "few"}}, 3, "Invalid " + repairs + "='few'; using 3"},
      {_sync_max_concurrency, {{concurrency, "0"}}, 1},
      {_sync_max_concurrency, {{concurrency, "all"}}, 8, "Invalid " + concurrency + "='all'; using 8"},
      {batch_timeout, {}, -1.0},
      {batch_timeout, {{batch, "2.5"}}, 2.5},
      {batch_timeout, {{batch, "nan"}}, -1.0, "Non-positive " + batch + "='nan'; disabling batch timeout"},
      {batch_timeout, {{batch, "soon"}}, -1.0, "Invalid " + batch + "='soon'; disabling batch timeout"},
  };
  for (const NumberRow& row : rows) {
    FakeEnvironment environment(row.variables);
    const RecordingLog log;
    EXPECT_EQ(row.read(environment), row.expected) << row.warning << PrintToString(row.variables);
    if (row.warning.empty()) {
      EXPECT_THAT(log.messages(LogLevel::Warning), IsEmpty());
    } else {
      EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre(row.warning));
    }
  }
}

}  // namespace
}  // namespace brackenfen::sync
