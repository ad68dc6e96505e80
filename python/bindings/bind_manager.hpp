// What the files that bind SyncManager share.
#pragma once

#include <cstdint>
#include <memory>

#include "python/bindings/binding.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync::python {

/// What Python sees as a SyncManager. The core's object may outlive it, and be handed out again.
struct ManagerObject {
  std::shared_ptr<SyncManager> core;
  std::uint64_t generation;  ///< of the process that made it

  explicit ManagerObject(std::shared_ptr<SyncManager> given);
  ManagerObject(const ManagerObject&) = delete;
  ManagerObject& operator=(const ManagerObject&) = delete;
  ~ManagerObject();

  /// Runs `work` on the core's object without the interpreter lock.
  template <typename Work>
  auto run(Work&& work) const {
    return detached([&] { return work(*core); });
  }
};

/// Runs a call that ends something. Once the interpreter is going it returns at once, whatever would have to be waited for.
template <typename Work>
void quietly_at_exit(Work&& work) {
  const bool late = gate::exiting();
  try {
    detached(std::forward<Work>(work));
  } catch (const Interrupted&) {
    if (!late) throw;
  }
}
/// Throws StateError once the interpreter is going: nothing is started any more.
inline void require_running_interpreter() {
  if (gate::exiting()) throw StateError("the interpreter is shutting down");
}

/// The same Python object for the same live manager.
[[nodiscard]] nb::object manager_to_python(const std::shared_ptr<SyncManager>& core);

void bind_manager_eras(nb::class_<ManagerObject>& bound);
/// Runs a download against a private record, which goes back to the host's whatever the outcome.
template <typename Download>
void into_result(nb::handle result, Download&& download) {
  SyncResult record = sync_result_argument(result);
  try {
    detached([&] { download(record); });
  } catch (...) {  // an interrupt too
    update_sync_result(result, record);
    throw;
  }
  update_sync_result(result, record);
}

void bind_manager_documents(nb::class_<ManagerObject>& bound);
void bind_manager_lifecycle(nb::class_<ManagerObject>& bound);
void bind_manager_downloads(nb::class_<ManagerObject>& bound);
void bind_manager_integrity(nb::class_<ManagerObject>& bound);
void bind_manager_rotation(nb::class_<ManagerObject>& bound);
void bind_manager_on_demand(nb::class_<ManagerObject>& bound);
void bind_manager_fields(nb::class_<ManagerObject>& bound);
void bind_manager_observation(nb::class_<ManagerObject>& bound);

}  // namespace brackenfen::sync::python
