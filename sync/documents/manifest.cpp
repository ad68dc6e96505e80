#include "sync/documents/manifest.hpp"

#include <sys/utsname.h>

#include <cerrno>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_filters.hpp"

namespace brackenfen::sync {
namespace {

Value field_or(const Document& data, std::string_view key, const Value& fallback) {
  const Value* field = data.find(key);
  return field == nullptr ? fallback : *field;
}

}  // namespace

const std::string& current_platform() {
  static const std::string& platform = *new std::string(_detect_platform());
  return platform;
}

std::string _detect_platform() {
  utsname names{};
  if (uname(&names) != 0) throw os_error(errno);
  return platform_name(names.sysname, names.machine);
}

std::string platform_name(std::string_view system, std::string_view machine) {
  const std::string system_name = ascii_lower(system);
  const std::string machine_name = ascii_lower(machine);
  const bool x86_64 = machine_name == "x86_64" || machine_name == "amd64";
  const bool arm64 = machine_name == "aarch64" || machine_name == "arm64";
  if (system_name == "linux" && x86_64) return "linux_x86_64";
  if (system_name == "linux" && arm64) return "linux_aarch64";
  if (system_name == "darwin" && x86_64) return "macos_x86_64";
  if (system_name == "darwin" && arm64) return "macos_arm64";
  if (system_name == "windows") return "windows_amd64";  // on any machine
  return system_name + "_" + machine_name;
}

Value manifest_integer(const Value& value, std::string_view key) {
  try {
    return to_integer(value);
  } catch (const Error& error) {
    const std::string text = "manifest " + std::string(key) + ": " + error.text();
    if (value.if_real()) throw ManifestError(text);
    throw Error(error.error_class(), text);
  }
}

Manifest::Manifest(NeighbourSet& neighbours, const Value& data) : data_(_sanitize_manifest_data_for_sync(neighbours, data)) {
  era_number_ = field_or(data_, "era_number", 0);
  version_ = field_or(data_, "version", 0);
  base_url_ = data_.get("base_url");
  pnl_column_count_ = field_or(data_, "pnl_column_count", 0);
  signals_index_ = data_.get("signals_index");
  functions_ = data_.get("functions");
  files_ = field_or(data_, "files", Document());
}

Document Manifest::data() const {
  MutexLock lock(mutex_);
  return data_;
}

Value Manifest::files() const {
  MutexLock lock(mutex_);
  return files_;
}

Value Manifest::file(std::string_view path) const {
  const Value files = this->files();
  const Document* entries = files.if_document();
  return entries == nullptr ? Value() : entries->get(path);
}

Document Manifest::entry(std::string_view path) const {
  const Value file = this->file(path);
  const Document* entry = file.if_document();
  return entry == nullptr ? Document() : *entry;
}

void Manifest::set_file(std::string_view path, const Document& entry) {
  // What is replaced here is destroyed after the lock is free: it may be a document of 100,000 entries.
  Value old_files;
  Document old_data;
  MutexLock lock(mutex_);
  const Document* entries = files_.if_document();
  if (entries == nullptr) throw TypeError("manifest files must be a JSON object to take an entry");
  old_files = files_;
  old_data = data_;
  files_ = entries->with(path, entry);
  data_ = data_.with("files", files_);
}

Manifest::Sections Manifest::sections() const {
  MutexLock lock(mutex_);
  return sections_;
}

void Manifest::set_sections(Sections sections) {
  MutexLock lock(mutex_);
  std::swap(sections_, sections);
}

std::optional<RotationCatalog> Manifest::rotation_catalog(const void* neighbour) const {
  MutexLock lock(mutex_);
  if (rotation_catalog_.neighbour != neighbour || !rotation_catalog_.source.same_as(data_)) return std::nullopt;
  return rotation_catalog_.catalog;
}

void Manifest::remember_rotation_catalog(const void* neighbour, const Document& source, RotationCatalog catalog) {
  RememberedCatalog remembered{neighbour, source, std::move(catalog)};
  MutexLock lock(mutex_);
  std::swap(rotation_catalog_, remembered);  // the old artifacts go after the lock: they may be objects of the host
}

}  // namespace brackenfen::sync
