// The manifest: what one data directory must hold for one era at one generation.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"
#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {

/// "{system}_{machine}" of the running host, such as "linux_x86_64". Computed once.
[[nodiscard]] const std::string& current_platform();
[[nodiscard]] std::string _detect_platform();
/// The same from given names, in any letter case.
[[nodiscard]] std::string platform_name(std::string_view system, std::string_view machine);

/// int(value), for a number that a manifest holds under `key`, whose name stands in the text of what it throws:
/// ValueError or TypeError, and ManifestError for an infinity or nan.
[[nodiscard]] Value manifest_integer(const Value& value, std::string_view key);

/// What rotations are planned from.
struct RotationCatalog {
  ArtifactsRef artifacts;
  Document context;  ///< what the settings may choose from
};

/// The record of one manifest. The document is sanitised on the way in; no field is converted or checked, so
/// a malformed value stays as it came until a reader converts it.
///
/// Any thread may read. Two things change after construction, each as a whole and under the record's own
/// leaf lock: an entry of `files` (together with the document it lies in), and the three membership sections.
class Manifest {
 public:
  /// Throws AttributeError where `data` is no document.
  Manifest(NeighbourSet& neighbours, const Value& data);

  /// The whole sanitised document. What is written to manifest.json.
  [[nodiscard]] Document data() const;
  /// Usually a document; whatever the manifest held otherwise. The same one that data() holds.
  [[nodiscard]] Value files() const;
  [[nodiscard]] Document to_dict() const { return data(); }

  [[nodiscard]] const Value& era_number() const noexcept { return era_number_; }
  [[nodiscard]] const Value& version() const noexcept { return version_; }
  [[nodiscard]] const Value& base_url() const noexcept { return base_url_; }
  [[nodiscard]] const Value& pnl_column_count() const noexcept { return pnl_column_count_; }
  [[nodiscard]] const Value& signals_index() const noexcept { return signals_index_; }
  [[nodiscard]] const Value& functions() const noexcept { return functions_; }

  /// The entry at `path`; null where there is none.
  [[nodiscard]] Value file(std::string_view path) const;
  /// The same as a document; empty where there is none, or none of that shape.
  [[nodiscard]] Document entry(std::string_view path) const;
  /// Sets one entry, in `files` and in the document at once. Throws TypeError where `files` is no document.
  void set_file(std::string_view path, const Document& entry);

  struct Sections {
    Document found_signals;
    Document found_strategies;
    Document useful_signals;
  };
  /// Empty until a signals index is applied, whatever the manifest document holds under these names.
  [[nodiscard]] Sections sections() const;
  void set_sections(Sections sections);

  /// The catalog that was remembered for this neighbour; absent where none was, or an entry has changed since.
  [[nodiscard]] std::optional<RotationCatalog> rotation_catalog(const void* neighbour) const;
  /// Remembers what was made of `source`, this record's document at that time.
  void remember_rotation_catalog(const void* neighbour, const Document& source, RotationCatalog catalog);

 private:
  Value era_number_, version_, base_url_, pnl_column_count_, signals_index_, functions_;
  mutable Mutex mutex_;
  Document data_ GUARDED_BY(mutex_);
  Value files_ GUARDED_BY(mutex_);
  Sections sections_ GUARDED_BY(mutex_);
  struct RememberedCatalog {
    const void* neighbour = nullptr;
    Document source;
    RotationCatalog catalog;
  };
  RememberedCatalog rotation_catalog_ GUARDED_BY(mutex_);
};

}  // namespace brackenfen::sync
