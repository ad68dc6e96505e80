// Bringing a manifest's entry into line with bytes that have been validated. What the server publishes about a
// document can lag behind the bytes in its storage.
#include "sync/base/error.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

struct Measured {
  explicit Measured(std::string_view body) : sha256(_sha256(body)), size_bytes(body.size()) {}

  [[nodiscard]] bool is_stated_by(const Document& entry) const {
    return entry.get("sha256") == sha256 && entry.get("size_bytes") == size_bytes;
  }
  [[nodiscard]] Document stated_in(const Document& entry) const { return entry.with("sha256", sha256).with("size_bytes", size_bytes); }

  Value sha256;
  Value size_bytes;
};

Value reason_or(const std::optional<std::string>& reason, const char* otherwise) {
  return reason && !reason->empty() ? Value(*reason) : Value(otherwise);
}

}  // namespace

void SyncManager::_repair_vocabulary_manifest_entry(Manifest& server_manifest, const std::string& file_path, std::string_view body,
                                                    const std::optional<std::string>& reason, bool allow_sha_mismatch) {
  const Document entry = server_manifest.entry(file_path);
  const Measured actual(body);
  if (actual.is_stated_by(entry)) return;
  const Value& expected_sha = entry.get("sha256");
  if (expected_sha.truthy() && expected_sha != actual.sha256 && !allow_sha_mismatch) {
    throw integrity_error("Refusing to repair vocabulary manifest hash for " + file_path + ": expected " + to_text(expected_sha) +
                              ", got " + to_text(actual.sha256),
                          file_path);
  }
  server_manifest.set_file(file_path, actual.stated_in(entry));
  log_warning("Manifest vocabulary metadata repaired for %s: expected sha=%s size=%s, actual sha=%s size=%s; %s", file_path, expected_sha,
              entry.get("size_bytes"), actual.sha256, actual.size_bytes, reason_or(reason, "validated vocabulary bytes"));
}

void SyncManager::_repair_signals_index_manifest_entry(Manifest& server_manifest, const std::string& file_path, std::string_view body,
                                                       const std::optional<std::string>& reason) {
  const Document entry = server_manifest.entry(file_path);
  const Measured actual(body);
  if (actual.is_stated_by(entry)) return;
  server_manifest.set_file(file_path, actual.stated_in(entry.with("relative_path", file_path).with("kind", "signals_index")));
  log_warning("Manifest signals_index metadata repaired for %s: expected sha=%s size=%s, actual sha=%s size=%s; %s", file_path,
              entry.get("sha256"), entry.get("size_bytes"), actual.sha256, actual.size_bytes,
              reason_or(reason, "validated signals_index bytes"));
}

}  // namespace brackenfen::sync
