#include "sync/transport/backoff.hpp"

#include <string>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/transport/events.hpp"
#include "sync/transport/progress.hpp"

namespace brackenfen::sync {
namespace {

/// What a pass wrote before the wait began; empty where nothing of use lies there.
Document progress_on_disk(const std::string& path) {
  try {
    const Value content = parse_json(read_file(path));
    const Document* const document = content.if_document();
    return document != nullptr ? *document : Document();
  } catch (const Error&) {
    return {};
  }
}

const Value& or_else(const Value& value, const Value& fallback) { return value.truthy() ? value : fallback; }

Document wait_shown_to_operators(const Document& event) {
  const Value& surface = event.get("surface");
  const std::string surface_text = surface.is_null() ? std::string() : to_text(surface);
  // Background waits never show their cause.
  const std::string reason = surface_text == "background_worker" ? "transient" : to_text(or_else(event.get("reason"), "transient"));
  return {
      {"surface", surface_text},
      {"attempt", to_integer(or_else(event.get("attempt"), 0))},
      {"wait_seconds", to_real(or_else(event.get("wait_seconds"), 0.0))},
      {"reason", reason},
  };
}

}  // namespace

std::shared_ptr<SyncBackoff> _sync_backoff_module(const Seams& seams) { return seams.neighbours->sync_backoff(); }

BackoffContext _current_sync_backoff_context(const Seams& seams) {
  try {
    return _sync_backoff_module(seams)->current_context();
  } catch (const Error&) {
    return {};
  }
}

std::string _sync_backoff_surface(const Seams& seams, std::string_view default_surface) {
  std::string surface = _current_sync_backoff_context(seams).surface;
  return surface.empty() ? std::string(default_surface) : surface;
}

bool _sync_backoff_stop_requested(const Seams& seams) {
  const BackoffContext context = _current_sync_backoff_context(seams);
  try {
    return context.stop_requested && context.stop_requested();
  } catch (const Error&) {
    return false;
  }
}

double _backoff_delay_seconds(const Seams& seams, int attempt_index) { return _sync_backoff_module(seams)->delay_seconds(attempt_index); }

Document _emit_sync_backoff_wait(const Seams& seams, std::string_view default_surface, int attempt_index, std::string_view reason,
                                 std::string_view file_path, float wait_seconds) {
  const std::string surface = _sync_backoff_surface(seams, default_surface);
  Document event = _sync_backoff_module(seams)->sync_backoff_event_fields(surface, attempt_index + 1, static_cast<double>(wait_seconds),
                                                                          reason, file_path);
  _emit_brackenfen_sync_event(event);
  _write_sync_backoff_progress_json(seams, event);
  return event;
}

void _write_sync_backoff_progress_json(const Seams& seams, const Document& event) {
  const std::string data_dir = _current_sync_backoff_context(seams).data_dir;
  if (data_dir.empty()) return;
  const std::string path = _sync_progress_path(data_dir);
  const Document previous = progress_on_disk(path);
  std::vector<Member> members{
      {"phase", "backoff"},
      {"updated_at", seams.clock->wall_seconds()},
      {"backoff", wait_shown_to_operators(event)},
  };
  for (const char* key : {"era_number", "version", "total_bytes", "total_bytes_known", "unknown_size_files", "files"}) {
    if (const Value* const kept = previous.find(key)) members.push_back({key, *kept});
  }
  _atomic_write(*seams.files, *seams.clock, path, write_json(Document(std::move(members)), JsonForm::SortedKeys));
}

void _sleep_for_sync_backoff(const Seams& seams, float wait_seconds) {
  const std::shared_ptr<SyncBackoff> backoff = _sync_backoff_module(seams);
  const bool completed =
      backoff->sleep(static_cast<double>(wait_seconds), *seams.clock, [&] { return _sync_backoff_stop_requested(seams); });
  if (!completed) throw backoff->cancelled_error();
}

}  // namespace brackenfen::sync
