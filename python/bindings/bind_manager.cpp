// SyncManager as Python sees it: a handle on the core's object.
//
// The handle takes part in garbage collection with the host's objects that the manager holds, so that a
// token source which refers back to the manager is no leak.
#include "python/bindings/bind_manager.hpp"

#include <new>

#include "python/adapters/callables.hpp"
#include "python/interpreter/host.hpp"
#include "python/interpreter/instances.hpp"
#include "sync/base/threads/fork.hpp"

namespace brackenfen::sync::python {
namespace {

Instances<SyncManager>& instances() {
  static Instances<SyncManager>& live = *new Instances<SyncManager>;
  return live;
}

/// What is left behind where the collector broke a cycle.
class CollectedTokenSource : public TokenSource {
 public:
  std::string token() override { throw StateError("SyncManager was garbage-collected"); }
};

/// The references that the collector may follow: those of a manager that this handle alone keeps alive. A
/// manager of the parent process is left alone, since its locks may be held by threads that are gone.
bool collectable(const ManagerObject& handle) noexcept {
  return handle.core && handle.core.use_count() == 1 && handle.generation == fork_generation();
}

int traverse(PyObject* self, visitproc visit, void* arg) noexcept {
  Py_VISIT(Py_TYPE(self));
  if (!nb::inst_ready(self)) return 0;
  const ManagerObject& handle = *nb::inst_ptr<ManagerObject>(self);
  if (!collectable(handle)) return 0;
  const auto follow = [&](const auto& held) {
    const HostObject* host = host_object(held);
    return host == nullptr ? 0 : visit(host->object().ptr(), arg);
  };
  if (const int stop = follow(handle.core->_get_token.get()); stop != 0) return stop;
  if (const int stop = follow(handle.core->runtime_freshness_guard.get()); stop != 0) return stop;
  if (const int stop = handle.core->era_callbacks().visit_each(follow); stop != 0) return stop;
  if (const int stop = handle.core->rotation_search_consumers().visit_each(follow); stop != 0) return stop;
  return follow(handle.core->_active_rotation_state.get());
}

int clear(PyObject* self) noexcept {
  if (!nb::inst_ready(self)) return 0;
  const ManagerObject& handle = *nb::inst_ptr<ManagerObject>(self);
  if (!collectable(handle)) return 0;
  try {
    handle.core->_get_token.set(std::make_shared<CollectedTokenSource>());
  } catch (const std::bad_alloc&) {
    handle.core->_get_token.set(nullptr);
  }
  handle.core->runtime_freshness_guard.set(nullptr);
  handle.core->_active_rotation_state.set(nullptr);
  handle.core->era_callbacks().clear();
  handle.core->_era_thread.set(nullptr);  // one that was never stopped shares in the token source
  handle.core->rotation_search_consumers().clear();
  return 0;
}

PyType_Slot collector_slots[] = {
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)}, {Py_tp_clear, reinterpret_cast<void*>(clear)}, {0, nullptr}};

SyncManager::Options options_from(nb::handle data_dir, nb::handle server_url, nb::handle get_token, nb::handle poll_interval_s,
                                  nb::handle guard) {
  end_waits_before_thread_pools();
  SyncManager::Options options;
  options.data_dir = path_argument(data_dir, "data_dir");
  options.server_url = server_url.is_none() ? std::string() : text_argument(server_url, "server_url");
  options.get_token = token_source(get_token);
  options.poll_interval_s = real_argument(poll_interval_s, "poll_interval_s");
  options.runtime_freshness_guard = freshness_guard(guard);
  options.seams = host_seams();
  return options;
}

void construct(nb::pointer_and_handle<ManagerObject> self, nb::handle data_dir, nb::handle server_url, nb::handle get_token,
               nb::handle poll_interval_s, nb::handle guard, nb::handle token) {
  const nb::object source = token.is_none() ? nb::borrow(get_token) : fixed_token_callable(text_form(token));
  SyncManager::Options options = options_from(data_dir, server_url, source, poll_interval_s, guard);
  auto core = detached([&] { return std::make_shared<SyncManager>(std::move(options)); });
  new (self.p) ManagerObject(std::move(core));
  instances().add(self.p->core.get(), self.h);
}

nb::object get_or_create(nb::handle data_dir, nb::handle server_url, nb::handle get_token, nb::handle poll_interval_s, nb::handle guard) {
  SyncManager::Options options = options_from(data_dir, server_url, get_token, poll_interval_s, guard);
  return manager_to_python(detached([&] { return SyncManager::get_or_create(std::move(options)); }));
}

nb::dict live_instances(nb::handle) {
  nb::dict live;
  for (const auto& [directory, manager] : detached([] { return SyncManager::_instances(); })) {
    live[path_to_python(directory)] = manager_to_python(manager);
  }
  return live;
}

void bind_construction(nb::class_<ManagerObject>& bound) {
  bound
      .def("__init__", construct, any("data_dir"), any("server_url"), nb::arg("get_token") = nb::none(),
           nb::arg("poll_interval_s").none() = SYNC_MANIFEST_POLL_INTERVAL_SECONDS, nb::arg("runtime_freshness_guard") = nb::none(),
           nb::arg("token") = nb::none(),
           nb::sig("def __init__(self, data_dir: str | os.PathLike[str], server_url: str, get_token: collections.abc.Callable[[], str] | "
                   "None = None, "
                   "poll_interval_s: float = 5.0, runtime_freshness_guard: RuntimeFreshnessGuard | None = None, token: str | None = None) "
                   "-> None"),
           "Open a directory without entering it in the process's registry; see get_or_create.\n\n"
           "token: a fixed bearer token in place of get_token.")
      .def_static(
          "get_or_create", get_or_create, any("data_dir"), any("server_url"), any("get_token"),
          nb::arg("poll_interval_s").none() = SYNC_MANIFEST_POLL_INTERVAL_SECONDS, nb::arg("runtime_freshness_guard") = nb::none(),
          nb::sig("def get_or_create(data_dir: str | os.PathLike[str], server_url: str, get_token: collections.abc.Callable[[], str], "
                  "poll_interval_s: float = 5.0, runtime_freshness_guard: RuntimeFreshnessGuard | None = None) -> SyncManager"),
          "The process's one manager for a directory; built on first use from the files there, without a request.\n\n"
          "get_token is called for each request, on the thread that makes it. poll_interval_s is in seconds.\n"
          "An existing manager takes over the new get_token, and the new guard where there is one.\n"
          "Raises TypeError for a token source that cannot be called, ValueError for an empty or unacceptable\n"
          "server_url or one that differs from the existing manager's, FileNotFoundError for a missing directory.")
      .def_static(
          "_evict",
          [](nb::handle data_dir) {
            const std::string directory = path_argument(data_dir, "data_dir");
            detached([&] { SyncManager::_evict(directory); });
          },
          any("data_dir"))
      .def_prop_ro_static("_instances", live_instances);
}

void bind_pass(nb::class_<ManagerObject>& bound) {
  bound
      .def(
          "sync", [](const ManagerObject& self) { return sync_result_to_python(self.run([](SyncManager& core) { return core.sync(); })); },
          nb::sig("def sync(self) -> SyncResult"),
          "Bring the directory up to the server's current manifest: compare, download, verify, commit.\n\n"
          "An outage of the server is waited out, however long it lasts; Ctrl-C and a `stop_requested` of the back-off\n"
          "context end the wait, the latter with SyncBackoffCancelled. Raises SyncUnavailableError where the server\n"
          "itself says that retrying cannot help, AuthError, SyncError and its other subclasses, or OSError of the\n"
          "local files.")
      .def("_sync_with_manifest_refresh",
           [](const ManagerObject& self) {
             return sync_result_to_python(self.run([](SyncManager& core) { return core._sync_with_manifest_refresh(); }));
           })
      .def("_sync_impl",
           [](const ManagerObject& self) { return sync_result_to_python(self.run([](SyncManager& core) { return core._sync_impl(); })); })
      .def(
          "get_manifest", [](const ManagerObject& self) { return manifest_to_python(self.core->get_manifest()); },
          nb::sig("def get_manifest(self) -> Manifest | None"), "The manifest of the last commit, or None.")
      .def(
          "status", [](const ManagerObject& self) { return to_python(self.core->status()); }, nb::sig("def status(self) -> str | None"),
          "Human-readable status, or None.")
      .def("_acquire_flock", [](const ManagerObject& self) { self.run([](SyncManager& core) { core._acquire_flock(); }); })
      .def("_release_flock", [](const ManagerObject& self) { self.run([](SyncManager& core) { core._release_flock(); }); });
}

}  // namespace

ManagerObject::ManagerObject(std::shared_ptr<SyncManager> given) : core(std::move(given)), generation(fork_generation()) {}

ManagerObject::~ManagerObject() {
  const nb::error_scope raised_meanwhile;  // the object may go while an exception is on its way
  instances().forget(core.get());
  let_go(core, "SyncManager");
}

nb::object manager_to_python(const std::shared_ptr<SyncManager>& core) {
  if (nb::object live = instances().find(core.get()); live.is_valid()) return live;
  nb::object made = nb::cast(new ManagerObject(core), nb::rv_policy::take_ownership);
  instances().add(core.get(), made);
  return made;
}

void bind_manager(nb::module_& module) {
  module.attr("_SYNC_MANIFEST_POLL_INTERVAL_SECONDS") = SYNC_MANIFEST_POLL_INTERVAL_SECONDS;
  module.attr("_SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT") = SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT;
  module.attr("_SYNC_HASH_CACHE_FILENAME") = SYNC_HASH_CACHE_FILENAME;
  module.attr("_SYNC_HASH_CACHE_VERSION") = SYNC_HASH_CACHE_VERSION;
  nb::class_<ManagerObject> bound(module, "SyncManager", nb::is_weak_referenceable(), nb::type_slots(collector_slots),
                                  "The one object through which a process reaches one data directory.\n\n"
                                  "Any thread may call it. Obtain it with SyncManager.get_or_create.");
  bind_construction(bound);
  bind_pass(bound);
  bind_manager_eras(bound);
  bind_manager_documents(bound);
  bind_manager_lifecycle(bound);
  bind_manager_downloads(bound);
  bind_manager_integrity(bound);
  bind_manager_rotation(bound);
  bind_manager_on_demand(bound);
  bind_manager_fields(bound);
  bind_manager_observation(bound);
}

}  // namespace brackenfen::sync::python
