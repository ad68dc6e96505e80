#include "sync/lifecycle/told_era.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t MOST_BYTES = 64;
constexpr const char* ERA_KEY = "era_number";

std::string note_path(std::string_view data_dir) { return join_path(data_dir, TOLD_ERA_FILENAME); }

std::optional<Value> read_note(const std::string& path) {
  try {
    const Value note = parse_json(read_file(path, MOST_BYTES));
    const Document* said = note.if_document();
    const Value* era = said ? said->find(ERA_KEY) : nullptr;
    if (!era) return std::nullopt;
    return era->is_null() ? *era : to_integer_or_absent(*era);
  } catch (const Error&) {
    return std::nullopt;
  }
}

bool is_another_era(const Value& told, const Value& era_number) { return told != to_integer_or_absent(era_number).value_or(era_number); }

}  // namespace

std::optional<Value> era_told_before(std::string_view data_dir, const Value& era_number) {
  std::optional<Value> told = read_note(note_path(data_dir));
  return told && is_another_era(*told, era_number) ? told : std::nullopt;
}

std::optional<Value> SyncManager::era_told_before(const Value& era_number) const {
  const std::optional<Value> told = told_era_.get();
  if (!told) return sync::era_told_before(_data_dir.get(), era_number);
  return is_another_era(*told, era_number) ? told : std::nullopt;
}

std::optional<Value> SyncManager::era_to_watch_from() const {
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) return std::nullopt;
  const std::optional<Value> told = era_told_before(manifest->era_number());
  return told && !told->is_null() ? *told : manifest->era_number();
}

void note_told_era(std::string_view data_dir, const Value& told_era) {
  const std::string path = note_path(data_dir);
  try {
    // A part of it reads as none, and nothing that it is about is done yet.
    Descriptor file = open_own_file(path, O_WRONLY);
    if (::ftruncate(file.get(), 0) != 0) throw os_error(errno, path);
    write_all(file, write_json(Document{{ERA_KEY, told_era}}, JsonForm::InsertionOrder), path);
    file.close();
  } catch (const Error& error) {
    log_warning("Failed to note the era that was last told: %s", error.text());
  }
}

void forget_told_era(Files& files, std::string_view data_dir) {
  try {
    files.unlink(note_path(data_dir));
  } catch (const Error& error) {
    if (!error.is(error_class::FileNotFoundError)) log_warning("Failed to remove the note of the era that was last told: %s", error.text());
  }
}

}  // namespace brackenfen::sync
