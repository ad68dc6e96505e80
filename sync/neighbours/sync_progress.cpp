#include "sync/neighbours/sync_progress.hpp"

#include <string_view>

namespace brackenfen::sync {
namespace {

class BuiltinSyncProgress final : public SyncProgress {
 public:
  std::optional<Value> manifest_file_size(const Value& file_info) const override {
    const Document* entry = file_info.if_document();
    const Value* size = entry == nullptr ? nullptr : entry->find("size_bytes");
    if (size == nullptr) return std::nullopt;
    if (const std::optional<std::int64_t> number = size->if_integer(); number && *number >= 0) return *size;
    if (const std::optional<std::string_view> digits = size->if_big_integer(); digits && !digits->starts_with('-')) return *size;
    return std::nullopt;
  }
};

}  // namespace

const SyncProgress& SyncProgress::builtin() {
  static const SyncProgress& sync_progress = *new BuiltinSyncProgress;
  return sync_progress;
}

}  // namespace brackenfen::sync
