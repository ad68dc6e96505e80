// The parts of the module, one table-like function each, and what they share.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "python/adapters/neighbours_host.hpp"
#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/values.hpp"
#include "python/interpreter/gate.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/engine/results.hpp"
#include "sync/era/era_thread.hpp"

namespace brackenfen::sync::python {

void bind_results(nb::module_& module);
void bind_manifest(nb::module_& module);
void bind_paths(nb::module_& module);
void bind_settings(nb::module_& module);
void bind_http(nb::module_& module);
void bind_backoff(nb::module_& module);
void bind_events(nb::module_& module);
void bind_outages(nb::module_& module);
void bind_files(nb::module_& module);
void bind_progress(nb::module_& module);
void bind_found_pnl(nb::module_& module);
void bind_eras(nb::module_& module);
void bind_signals_index(nb::module_& module);
void bind_vocabulary(nb::module_& module);
void bind_shuffle_seed(nb::module_& module);
void bind_era_thread(nb::module_& module);
void bind_rotation(nb::module_& module);
void bind_manager(nb::module_& module);
void bind_lock_holder(nb::module_& module);

/// The records of what a manager is doing, or would do: names of the module that are looked up when they are asked for.
inline constexpr std::string_view OBSERVATION_RECORDS[] = {"FileInFlight", "Health",   "LockHolder", "LockWait",
                                                           "Progress",     "SyncPlan", "Wait"};
/// The class of that name; no object for any other.
[[nodiscard]] nb::object observation_record(const std::string& name);

/// An argument that accepts any object, None included; the body converts it and names it in a TypeError.
[[nodiscard]] constexpr auto any(const char* name) { return nb::arg(name).none(); }

/// Runs `work`, which touches no Python object, without the interpreter lock.
template <typename Work>
auto detached(Work&& work) {
  const Released released;
  return std::forward<Work>(work)();
}

/// For the finaliser of an object of that class: lets go of what it holds of the core, without the interpreter lock where that
/// can be. Throws nothing.
template <typename Core>
void let_go(std::shared_ptr<Core>& core, const char* class_name) {
  try {
    detached([&] { core.reset(); });
  } catch (nb::python_error& error) {  // a signal came meanwhile: as with any other finaliser
    error.discard_as_unraisable(class_name);
  } catch (const StateError&) {   // in a callback that must not call back: it goes with the interpreter lock held
  } catch (const Interrupted&) {  // the same as the interpreter ends
  }
}

/// Document of a manifest. Throws TypeError for None, as for what is no value at all, and AttributeError for another
/// value that has no keys to look up.
[[nodiscard]] Document manifest_document(nb::handle object, const char* name, Origins* origins = nullptr);

/// Applies a filter of the core to a document of Python: what the filter passes through, the document itself
/// included, comes back as the very object it was.
template <typename Filter>
nb::object filtered(nb::handle object, const char* name, Filter&& filter) {
  Origins origins;
  const Document document = manifest_document(object, name, &origins);
  const Document result = detached([&] { return filter(document); });
  return result.same_as(document) ? nb::borrow(object) : to_python(result, &origins);
}

// ---- results ---------------------------------------------------------------------------------------------

[[nodiscard]] nb::object sync_result_to_python(const SyncResult& result);
/// A copy of what a Python SyncResult holds now; the core never writes into the object itself.
[[nodiscard]] SyncResult sync_result_argument(nb::handle object);
void update_sync_result(nb::handle object, const SyncResult& result);
[[nodiscard]] nb::object verify_result_to_python(const VerifyResult& result);

// ---- threads ---------------------------------------------------------------------------------------------

/// An object with is_alive(); None for nullptr.
[[nodiscard]] nb::object thread_to_python(const std::shared_ptr<BackgroundThread>& thread);
/// The same Python object for the same live watcher; None for nullptr.
[[nodiscard]] nb::object era_thread_to_python(const std::shared_ptr<EraThread>& core);

// ---- manifests -------------------------------------------------------------------------------------------

/// The record of a bound `Manifest`, or one built from the attributes of any other object, its membership
/// sections included; what it lacks counts as absent. Attached threads only.
[[nodiscard]] std::shared_ptr<Manifest> manifest_argument(nb::handle object);
/// A manifest that an operation of the core may change. The record of a bound `Manifest` is changed itself; any
/// other object gets its sections assigned, and changed entries set in its `files` and in those of its `_data`,
/// once the operation has succeeded.
class ManifestInOut {
 public:
  explicit ManifestInOut(nb::handle object);
  [[nodiscard]] Manifest& record() const noexcept { return *record_; }
  void give_back() const {
    give_back_sections();
    give_back_entries();
  }
  /// Runs `work` on the record without the interpreter lock.
  template <typename Work>
  auto run(Work&& work) const {
    if constexpr (std::is_void_v<decltype(work(*record_))>) {
      detached([&] { work(*record_); });
      give_back();
    } else {
      auto result = detached([&] { return work(*record_); });
      give_back();
      return result;
    }
  }

 private:
  void give_back_sections() const;
  void give_back_entries() const;

  nb::handle object_;
  std::shared_ptr<Manifest> record_;
  Value files_before_;
};
/// The same Python object for the same live record; None for nullptr.
[[nodiscard]] nb::object manifest_to_python(const std::shared_ptr<Manifest>& record);
/// The attribute `files` of any object; an empty document where it has none, null where it is no mapping.
[[nodiscard]] Value files_of(nb::handle manifest);
/// A text, or the `value` of a member of an enumeration.
[[nodiscard]] Value expression_type_argument(nb::handle expression_type);
/// The attribute `name` of any object; null where it has none, or one that is no value.
[[nodiscard]] Value attribute_of(nb::handle manifest, const char* name);

}  // namespace brackenfen::sync::python
