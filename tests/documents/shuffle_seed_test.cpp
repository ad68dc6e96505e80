#include "sync/documents/shuffle_seed.hpp"

#include "tests/documents/values.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

TEST(ShuffleSeed, isOf60BytesAndProvenForItsEra) {
  const std::string of_no_use = "SyncError: shuffle_seed.enc era metadata is invalid";
  using Content = std::optional<std::string>;
  const std::tuple<std::optional<std::size_t>, Content, std::string> rows[] = {
      {60, R"({"era_number": "12"})", ""},
      {std::nullopt, R"({"era_number": 12})", "SyncError: shuffle_seed.enc is missing"},
      {59, R"({"era_number": 12})", "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 59"},
      {61, R"({"era_number": 12})", "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 61"},
      {60, std::nullopt, "SyncError: shuffle_seed.enc era metadata is missing"},
      {60, "\xff", of_no_use},
      {60, "{}", "EraError: shuffle_seed.enc era metadata has invalid era_number=None"},
      {60, R"({"era_number": "x"})", "EraError: shuffle_seed.enc era metadata has invalid era_number='x'"},
      {60, R"({"era_number": 11})", "EraError: shuffle_seed.enc era_number=11 does not match manifest era_number=12"},
  };
  for (const auto& [size, metadata, failure] : rows) {
    const TemporaryDirectory directory;
    const std::string path = directory / SHUFFLE_SEED_FILENAME;
    if (size) directory.write(SHUFFLE_SEED_FILENAME, std::string(*size, 's'));
    if (metadata) directory.write("shuffle_seed.enc.meta.json", *metadata);
    EXPECT_EQ(failure_of([&] { return _validate_shuffle_seed_file(path, Value(12)), 0; }), failure);
    EXPECT_EQ(failure_of([&] { return _validate_shuffle_seed_file(path), 0; }), size == 60U ? "" : failure) << "without an era";
  }
  const TemporaryDirectory directory;
  directory.write("shuffle_seed.enc.meta.json/x", "a folder in its place");
  const std::string path = directory.write(SHUFFLE_SEED_FILENAME, std::string(60, 's'));
  EXPECT_EQ(failure_of([&] { return _validate_shuffle_seed_file(path, Value(12)), 0; }), of_no_use);
}

}  // namespace
}  // namespace brackenfen::sync
