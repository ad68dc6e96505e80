// Consumers, background threads, requests of the host and its era callbacks.
#include "python/adapters/callables.hpp"
#include "python/bindings/bind_manager.hpp"

namespace brackenfen::sync::python {
namespace {

using Bound = nb::class_<ManagerObject>;

/// A method that starts threads, which keep alive what the host knows the manager by: a weak reference to one that runs
/// holds. Nothing is started once the interpreter is going.
auto starting(void (SyncManager::*start)(std::shared_ptr<const void>)) {
  return [start](const ManagerObject& self) {
    require_running_interpreter();
    self.run([start, host_handle = share(manager_to_python(self.core))](SyncManager& core) { (core.*start)(host_handle); });
  };
}

template <typename Work>
auto ending(Work work) {
  return [work](const ManagerObject& self) { quietly_at_exit([&] { work(*self.core); }); };
}

void bind_consumers(Bound& bound) {
  bound
      .def("acquire", starting(&SyncManager::acquire), nb::sig("def acquire(self) -> None"),
           "Register as consumer, start threads if first.\n\n"
           "Raises StateError once the interpreter is shutting down.")
      .def("release", ending([](SyncManager& core) { core.release(); }), nb::sig("def release(self) -> None"),
           "Deregister as consumer, stop threads if last.\n\n"
           "The last one waits for a sync that is under way, however long that takes, and for an era transition 10 seconds;\n"
           "Ctrl-C ends the wait. Does nothing without consumers.")
      .def(
          "consumer_count", [](const ManagerObject& self) { return self.core->consumer_count(); },
          nb::sig("def consumer_count(self) -> int"), "Return the current number of active consumers.")
      .def("start", starting(&SyncManager::start), nb::sig("def start(self) -> None"),
           "Start background sync polling loop.\n\nRaises StateError where it runs.")
      .def("stop", ending([](SyncManager& core) { core.stop(); }), nb::sig("def stop(self) -> None"),
           "Stop background sync polling loop.\n\nWaits as release does.")
      .def(
          "is_alive", [](const ManagerObject& self) { return self.core->is_alive(); }, nb::sig("def is_alive(self) -> bool"),
          "Health check returning thread responsiveness.")
      .def("_persist_consumer_count",
           [](const ManagerObject& self) { self.run([](SyncManager& core) { core._persist_consumer_count(); }); })
      .def("_start_sync_thread", starting(&SyncManager::_start_sync_thread))
      .def("_start_internal", starting(&SyncManager::_start_internal))
      .def("_stop_internal", ending([](SyncManager& core) { core._stop_internal(); }))
      .def("_poll_loop", [](const ManagerObject& self) { self.run([](SyncManager& core) { core._poll_loop(); }); })
      .def("_poll_once", [](const ManagerObject& self) { self.run([](SyncManager& core) { core._poll_once(); }); })
      .def("_kill_fn", [](const ManagerObject& self) { self.run([](SyncManager& core) { core._kill_fn(); }); })
      .def("_restart_fn", [](const ManagerObject& self) { self.run([](SyncManager& core) { core._restart_fn(); }); });
}

void bind_requests(Bound& bound) {
  bound
      .def(
          "request_for_sync",
          [](const ManagerObject& self) { return list_of_paths(self.run([](SyncManager& core) { return core.request_for_sync(); })); },
          nb::sig("def request_for_sync(self) -> list[str]"),
          "Cross-process sync trigger, returns file paths.\n\n"
          "Absolute paths of found signal and strategy PnL files, newest first: those that this sync brought, else all.\n"
          "While another request of this process runs, waits for it, at most 30 seconds, and returns all.\n"
          "Raises StateError in an era transition and where the manager does not run, and what sync raises.")
      .def(
          "_get_found_file_paths",
          [](const ManagerObject& self) { return list_of_paths(self.run([](SyncManager& core) { return core._get_found_file_paths(); })); })
      .def(
          "report_corruption",
          [](const ManagerObject& self, nb::handle file_path) {
            const std::string path = text_argument(file_path, "file_path");
            self.run([&](SyncManager& core) { core.report_corruption(path); });
          },
          any("file_path"), nb::sig("def report_corruption(self, file_path: str) -> None"),
          "Cross-process corruption report, queues async repair.\n\n"
          "Raises StateError where the manager does not run, ValueError for a path that the manifest lacks.")
      .def("_process_repair_queue", [](const ManagerObject& self) { self.run([](SyncManager& core) { core._process_repair_queue(); }); });
}

void bind_callbacks(Bound& bound) {
  bound
      .def(
          "register_era_callback",
          [](const ManagerObject& self, nb::handle callback) {
            if (PyCallable_Check(callback.ptr()) == 0) refuse("callback", "callable", callback);
            self.core->era_callbacks().register_era_callback(era_callback(callback));
          },
          any("callback"), nb::sig("def register_era_callback(self, callback: collections.abc.Callable[[str, int], object]) -> None"),
          "Register a callback for era change events.\n\n"
          "callback(event_type, era_number) with \"kill\" (stop workers), \"restart\" or \"abort\" (resume), on the thread that\n"
          "drives the transition, which waits for it. What it raises is logged. A callable may be registered twice.")
      .def(
          "unregister_era_callback",
          [](const ManagerObject& self, nb::handle callback) {
            self.core->era_callbacks().unregister_era_callback(*era_callback(callback));
          },
          any("callback"), nb::sig("def unregister_era_callback(self, callback: collections.abc.Callable[[str, int], object]) -> None"),
          "Unregister an era change callback.\n\nRemoves the first equal one; one that is not registered is ignored.")
      .def(
          "_notify_era_callbacks",
          [](const ManagerObject& self, nb::handle event_type, nb::handle era_number) {
            const std::string event = text_argument(event_type, "event_type");
            const Value era = value_argument(era_number, "era_number");
            self.run([&](SyncManager& core) { core.era_callbacks()._notify_era_callbacks(event, era); });
          },
          any("event_type"), any("era_number"));
}

}  // namespace

void bind_manager_lifecycle(Bound& bound) {
  bind_consumers(bound);
  bind_requests(bound);
  bind_callbacks(bound);
}

}  // namespace brackenfen::sync::python
