#include "tools/distribution/era.hpp"

#include "sync/base/threads/clock.hpp"
#include "sync/base/values/json.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync::distribution {
namespace {

template <typename T>
Value value_or_null(const std::optional<T>& value) {
  return value ? Value(*value) : Value();
}

}  // namespace

Document era_document(const EraStatus& status, EraShape shape) {
  if (shape == EraShape::Flat) {
    return Document{{"era_number", value_or_null(status.era)},
                    {"state", status.state},
                    {"next_closing_at", value_or_null(status.next_closing_at)},
                    {"min_library_version", status.min_library_version}};
  }
  if (!status.era) return Document{{"era", nullptr}, {"state", status.state}};
  const Document era{{"era_number", *status.era},
                     {"next_closing_at", value_or_null(status.next_closing_at)},
                     {"min_library_version", status.min_library_version}};
  return Document{{"era", era}, {"state", status.state}};
}

void write_era(const TreePaths& paths, const EraStatus& status, EraShape shape) {
  const std::optional<FileStat> replaced = Files::real().stat(paths.era_current());
  _atomic_write(Files::real(), Clock::real(), paths.era_current(), write_json(era_document(status, shape), JsonForm::InsertionOrder));
  date_after(paths.era_current(), replaced);
}

}  // namespace brackenfen::sync::distribution
