// EraThread as Python sees it, and the library's own threads as objects that can be asked whether they live.
#include "python/adapters/callables.hpp"
#include "python/bindings/bind_manager.hpp"
#include "python/interpreter/instances.hpp"
#include "sync/base/threads/fork.hpp"

namespace brackenfen::sync::python {
namespace {

struct ThreadObject {
  std::shared_ptr<BackgroundThread> thread;
};

/// A handle on the core's watcher, which its thread may keep alive.
struct EraThreadObject {
  std::shared_ptr<EraThread> core;
  std::uint64_t generation = fork_generation();

  explicit EraThreadObject(std::shared_ptr<EraThread> given) : core(std::move(given)) {}
  EraThreadObject(const EraThreadObject&) = delete;
  EraThreadObject& operator=(const EraThreadObject&) = delete;
  ~EraThreadObject();

  template <typename Work>
  auto run(Work&& work) const {
    return detached([&] { return work(*core); });
  }
};

Instances<EraThread>& instances() {
  static Instances<EraThread>& live = *new Instances<EraThread>;
  return live;
}

EraThreadObject::~EraThreadObject() {
  const nb::error_scope raised_meanwhile;  // the object may go while an exception is on its way
  instances().forget(core.get());
  let_go(core, "EraThread");
}

/// Follows what a watcher of the host's own refers to, while this handle alone keeps it alive.
int traverse(PyObject* self, visitproc visit, void* arg) noexcept {
  Py_VISIT(Py_TYPE(self));
  if (!nb::inst_ready(self)) return 0;
  const EraThreadObject& handle = *nb::inst_ptr<EraThreadObject>(self);
  if (!handle.core || handle.core.use_count() != 1 || handle.generation != fork_generation()) return 0;
  const EraThread::Options& options = handle.core->options();
  if (const HostObject* token = host_object(options.get_token); token != nullptr && options.get_token.use_count() == 1)
    Py_VISIT(token->object().ptr());
  if (const HostObject* manager = host_object(options.sync_manager)) Py_VISIT(manager->object().ptr());
  for (const SearchesFn* searches : {&options.kill_searches_fn, &options.restart_searches_fn}) {
    if (const auto* host = searches->target<HostSearchesFn>()) Py_VISIT(host->callable->get().ptr());
  }
  return 0;
}

int clear(PyObject* self) noexcept {
  if (!nb::inst_ready(self)) return 0;
  const EraThreadObject& handle = *nb::inst_ptr<EraThreadObject>(self);
  if (!handle.core || handle.core.use_count() != 1 || handle.generation != fork_generation()) return 0;
  handle.core->drop_host();
  return 0;
}

PyType_Slot collector_slots[] = {
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)}, {Py_tp_clear, reinterpret_cast<void*>(clear)}, {0, nullptr}};

void construct(nb::pointer_and_handle<EraThreadObject> self, nb::handle server_url, nb::handle get_token, nb::handle sync_manager,
               nb::handle era_poll_interval_s, nb::handle kill_searches_fn, nb::handle restart_searches_fn) {
  EraThread::Options options{.server_url = text_argument(server_url, "server_url"),
                             .get_token = token_source(get_token),
                             .sync_manager = era_manager(sync_manager),
                             .era_poll_interval_s = real_argument(era_poll_interval_s, "era_poll_interval_s"),
                             .kill_searches_fn = searches_fn(callable_or_none(kill_searches_fn, "kill_searches_fn")),
                             .restart_searches_fn = searches_fn(callable_or_none(restart_searches_fn, "restart_searches_fn")),
                             .seams = host_seams()};
  auto core = detached([&] { return std::make_shared<EraThread>(std::move(options)); });
  // The URL comes first, whatever else is wrong.
  if (PyCallable_Check(get_token.ptr()) == 0) refuse("get_token", "callable", get_token);
  if (sync_manager.is_none()) refuse("sync_manager", "an object with trigger_era_transition", sync_manager);
  new (self.p) EraThreadObject(std::move(core));
  instances().add(self.p->core.get(), self.h);
}

using Bound = nb::class_<EraThreadObject>;

template <typename Get, typename Set>
void add(Bound& bound, const char* name, Get get, Set set) {
  bound.def_prop_rw(
      name, [get](const EraThreadObject& self) { return get(*self.core); },
      [set, name](const EraThreadObject& self, nb::handle value) { set(*self.core, value, name); }, nb::for_setter(any("value")));
}

template <auto MEMBER>
void add_flag(Bound& bound, const char* name) {
  add(
      bound, name, [](EraThread& core) { return to_python((core.*MEMBER).load()); },
      [](EraThread& core, nb::handle value, const char*) { (core.*MEMBER).store(truth(value)); });
}

template <auto MEMBER>
void add_value(Bound& bound, const char* name) {
  add(
      bound, name, [](EraThread& core) { return to_python((core.*MEMBER).get()); },
      [](EraThread& core, nb::handle value, const char* label) { (core.*MEMBER).set(value_argument(value, label)); });
}

void bind_fields(Bound& bound) {
  add(
      bound, "_server_url", [](EraThread& core) { return to_python(core._server_url.get()); },
      [](EraThread& core, nb::handle value, const char* name) { core._server_url.set(text_argument(value, name)); });
  add(
      bound, "_poll_interval", [](EraThread& core) { return to_python(core._poll_interval.get()); },
      [](EraThread& core, nb::handle value, const char* name) { core._poll_interval.set(real_argument(value, name)); });
  add_flag<&EraThread::_started>(bound, "_started");
  add_flag<&EraThread::_in_closing>(bound, "_in_closing");
  add_flag<&EraThread::_transition_failed>(bound, "_transition_failed");
  add_value<&EraThread::_last_known_era_id>(bound, "_last_known_era_id");
  add_value<&EraThread::_last_known_state>(bound, "_last_known_state");
  add_value<&EraThread::_last_transition_error>(bound, "_last_transition_error");
}

}  // namespace

nb::object era_thread_to_python(const std::shared_ptr<EraThread>& core) {
  if (!core) return nb::none();
  if (nb::object live = instances().find(core.get()); live.is_valid()) return live;
  nb::object made = nb::cast(new EraThreadObject(core), nb::rv_policy::take_ownership);
  instances().add(core.get(), made);
  return made;
}

nb::object thread_to_python(const std::shared_ptr<BackgroundThread>& thread) {
  return thread ? nb::cast(new ThreadObject{thread}, nb::rv_policy::take_ownership) : nb::none();
}

void bind_era_thread(nb::module_& module) {
  nb::class_<ThreadObject>(module, "_Thread", "A thread of the library.")
      .def(
          "is_alive", [](const ThreadObject& self) { return self.thread->is_alive(); }, "Whether it still runs.");

  Bound bound(module, "EraThread", nb::is_weak_referenceable(), nb::type_slots(collector_slots),
              "The thread that watches which era the server calls current.\n\n"
              "The first acquire of a manager starts one; a host may also build its own. It asks the server at each poll, and has\n"
              "the manager make a transition where the era closes or another one has begun. What fails is logged, and a new\n"
              "era tried again at the next poll.");
  bound
      .def(
          "_mark_transition_failed",
          [](const EraThreadObject& self, nb::handle context, nb::handle exc) {
            const std::string text = text_argument(context, "context");
            const std::string failure = text_form(exc);
            self.run([&](EraThread& core) { core._mark_transition_failed(text, failure); });
          },
          any("context"), any("exc"))
      .def("_clear_transition_failed",
           [](const EraThreadObject& self) { self.run([](EraThread& core) { core._clear_transition_failed(); }); })
      .def("__init__", construct, any("server_url"), any("get_token"), any("sync_manager"),
           nb::arg("era_poll_interval_s").none() = EraThread::DEFAULT_POLL_INTERVAL_SECONDS, nb::arg("kill_searches_fn") = nb::none(),
           nb::arg("restart_searches_fn") = nb::none(),
           nb::sig(
               "def __init__(self, server_url: str, get_token: collections.abc.Callable[[], str], sync_manager: SyncManager | EraManager, "
               "era_poll_interval_s: float = 600.0, kill_searches_fn: collections.abc.Callable[[], object] | None = None, "
               "restart_searches_fn: collections.abc.Callable[[], object] | None = None) -> None"),
           "era_poll_interval_s: the pause between polls, in seconds. Raises ValueError for an unacceptable server_url.")
      .def(
          "start",
          [](const EraThreadObject& self) {
            require_running_interpreter();
            self.run([host_handle = share(era_thread_to_python(self.core))](EraThread& core) { core.start(host_handle); });
          },
          nb::sig("def start(self) -> None"), "Start the thread.\n\nRaises StateError where it was started and not stopped.")
      .def(
          "stop", [](const EraThreadObject& self) { quietly_at_exit([&] { self.core->stop(); }); }, nb::sig("def stop(self) -> None"),
          "Tell the thread to end and wait for it, at most 10 seconds.\n\nA transition that is under way goes on.")
      .def(
          "is_alive", [](const EraThreadObject& self) { return self.core->is_alive(); }, nb::sig("def is_alive(self) -> bool"),
          "Whether the thread runs.")
      .def("_run", [](const EraThreadObject& self) { self.run([](EraThread& core) { core._run(); }); })
      .def("_poll_once", [](const EraThreadObject& self) { self.run([](EraThread& core) { core._poll_once(); }); });
  bind_fields(bound);
}

}  // namespace brackenfen::sync::python
