#include "sync/documents/shuffle_seed.hpp"

#include "tests/documents/values.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

TEST(ShuffleSeed, isOf60BytesAndProvenForItsEra) {
  struct Row {
    const char* name;
    std::optional<std::size_t> size;
    std::optional<std::string> metadata;
    std::string failure;
  };
  const std::string of_no_use = "SyncError: shuffle_seed.enc era metadata is invalid";
  const Row rows[] = {
      {"right", 60, R"({"era_number": 12})", ""},
      {"a text for the era", 60, R"({"era_number": "12"})", ""},
      {"missing", std::nullopt, R"({"era_number": 12})", "SyncError: shuffle_seed.enc is missing"},
      {"a byte short", 59, R"({"era_number": 12})", "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 59"},
      {"a byte long", 61, R"({"era_number": 12})", "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 61"},
      {"no companion", 60, std::nullopt, "SyncError: shuffle_seed.enc era metadata is missing"},
      {"an empty companion", 60, "", of_no_use},
      {"a companion that is no UTF-8", 60, "\xff", of_no_use},
      {"a companion with a byte order mark", 60, "\xef\xbb\xbf{}", of_no_use},
      {"a companion that is a list", 60, "[12]", of_no_use},
      {"no era", 60, "{}", "EraError: shuffle_seed.enc era metadata has invalid era_number=None"},
      {"an era that is none", 60, R"({"era_number": "x"})", "EraError: shuffle_seed.enc era metadata has invalid era_number='x'"},
      {"another era", 60, R"({"era_number": 11})", "EraError: shuffle_seed.enc era_number=11 does not match manifest era_number=12"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const TemporaryDirectory directory;
    const std::string path = directory / SHUFFLE_SEED_FILENAME;
    if (row.size) directory.write(SHUFFLE_SEED_FILENAME, std::string(*row.size, 's'));
    if (row.metadata) directory.write("shuffle_seed.enc.meta.json", *row.metadata);
    EXPECT_EQ(failure_of([&] { return _validate_shuffle_seed_file(path, Value(12)), 0; }), row.failure);
    if (row.size == 60U) {
      EXPECT_EQ(failure_of([&] { return _validate_shuffle_seed_file(path), 0; }), "");
    }
  }
  const TemporaryDirectory directory;
  directory.write("shuffle_seed.enc.meta.json/x", "a folder in its place");
  const std::string path = directory.write(SHUFFLE_SEED_FILENAME, std::string(60, 's'));
  EXPECT_EQ(failure_of([&] { return _validate_shuffle_seed_file(path, Value(12)), 0; }), of_no_use);
}

TEST(ShuffleSeed, comesWithItsEraInAHeader) {
  const std::pair<Value, std::string> rows[] = {
      {Document{{"x-ERA-id", " 12 "}}, ""},
      {Document{{"X-Era-Id", "12"}, {"x-era-id", "13"}}, ""},
      {Document(), "SyncError: seed response is missing X-Era-Id"},
      {List{"X-Era-Id"}, "SyncError: seed response is missing X-Era-Id"},
      {Document{{"X-Era-Id", "twelve"}}, "EraError: seed response has invalid X-Era-Id='twelve'"},
      {Document{{"X-Era-Id", ""}}, "EraError: seed response has invalid X-Era-Id=''"},
      {Document{{"X-Era-Id", "011"}}, "EraError: seed response era_number=11 does not match manifest era_number=12"},
  };
  for (const auto& [headers, failure] : rows) {
    EXPECT_EQ(failure_of([&, &fields = headers] { return _validate_response_era_header(fields, 12, "seed"), 0; }), failure);
  }
}

}  // namespace
}  // namespace brackenfen::sync
