#include "sync/documents/shuffle_seed.hpp"

#include <cerrno>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {
namespace {

/// The era as an integer; an EraError beginning with `complaint` where it is none.
Value era_or_complaint(const Value& era, const std::string& complaint) {
  if (const std::optional<Value> number = to_integer_or_absent(era)) return *number;
  throw EraError(complaint + to_quoted(era));
}

Document read_metadata(const std::string& path) {
  try {
    const Value metadata = parse_json(read_file(path));
    if (const Document* document = metadata.if_document()) return *document;
  } catch (const Error&) {  // unreadable or not JSON: told below, as is any other value
  }
  throw SyncError("shuffle_seed.enc era metadata is invalid");
}

/// What is no regular file in the seed's place is a damaged seed, which a new one replaces.
std::string read_seed(const std::string& path) {
  try {
    return read_file(path);
  } catch (const Error& error) {
    const Value& reason = error.fields().get("errno");
    if (reason != Value(EISDIR) && reason != Value(EINVAL) && reason != Value(ENXIO) && reason != Value(EFBIG)) throw;
    throw SyncError("shuffle_seed.enc is no regular file: " + error.text());
  }
}

}  // namespace

std::string _shuffle_seed_meta_path(const std::string& path) { return path + ".meta.json"; }

Value _header_value(const Value& headers, std::string_view name) {
  const Document* fields = headers.if_document();
  if (fields == nullptr) return {};
  const std::string wanted = ascii_lower(name);
  for (const Member& field : *fields) {
    if (ascii_lower(field.key) == wanted) return field.value;
  }
  return {};
}

void _validate_response_era_header(const Value& headers, const Value& expected_era_id, std::string_view artifact) {
  const std::string response = std::string(artifact) + " response";
  const Value raw = _header_value(headers, "X-Era-Id");
  if (raw.is_null()) throw SyncError(response + " is missing X-Era-Id");
  const Value response_era_id = era_or_complaint(raw, response + " has invalid X-Era-Id=");
  if (response_era_id == to_integer(expected_era_id)) return;
  throw EraError(response + " era_number=" + to_text(response_era_id) + " does not match manifest era_number=" + to_text(expected_era_id));
}

void _write_shuffle_seed_metadata(Files& files, Clock& clock, const std::string& path, const Value& era_number) {
  const Document metadata{{"era_number", to_integer(era_number)}};
  _atomic_write(files, clock, _shuffle_seed_meta_path(path), write_json(metadata, JsonForm::InsertionOrder));
}

void _validate_shuffle_seed_bytes(std::string_view data) {
  if (data.size() == SHUFFLE_SEED_SIZE_BYTES) return;
  throw SyncError("shuffle_seed.enc has invalid size: expected 60 bytes, got " + std::to_string(data.size()));
}

void _validate_shuffle_seed_file(const std::string& path, const std::optional<Value>& expected_era_id) {
  if (!path_exists(path)) throw SyncError("shuffle_seed.enc is missing");
  _validate_shuffle_seed_bytes(read_seed(path));
  if (!expected_era_id) return;
  const std::string meta_path = _shuffle_seed_meta_path(path);
  if (!path_exists(meta_path)) throw SyncError("shuffle_seed.enc era metadata is missing");
  const Value local_era_id =
      era_or_complaint(read_metadata(meta_path).get("era_number"), "shuffle_seed.enc era metadata has invalid era_number=");
  if (local_era_id == to_integer(*expected_era_id)) return;
  throw EraError("shuffle_seed.enc era_number=" + to_text(local_era_id) +
                 " does not match manifest era_number=" + to_text(*expected_era_id));
}

}  // namespace brackenfen::sync
