// The built-in back-off provider in Python's terms: contexts, the policy, and the object that stands for a module of the
// host where there is none.
#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "python/adapters/callables.hpp"
#include "python/adapters/neighbours_backoff.hpp"
#include "python/bindings/binding.hpp"
#include "sync/neighbours/inherited_backoff.hpp"

namespace brackenfen::sync::python {
namespace {

/// What a thread finds that runs in a copy of the host's context (asyncio.to_thread, some pools): a ContextVar with the
/// innermost block of that context. Each value is a dict of the block's fields, the block around it and the thread that
/// entered it, on which the thread's own contexts count alone. A copy keeps a block that was left after it was made: the
/// work in it goes on, and its stop callback must still end it. Attached threads only.
class HandedOn {
 public:
  static void begin() {
    variable_ = nb::module_::import_("contextvars").attr("ContextVar")("brackenfen.sync.backoff_context").release().ptr();
  }

  static nb::dict enter(const nb::dict& fields) {
    nb::dict block;
    block["fields"] = fields;
    block["around"] = innermost_not_left();
    block["thread"] = PyThread_get_thread_ident();
    nb::handle(variable_).attr("set")(block);
    set_inherited_context(context);
    return block;
  }

  static void leave(const nb::dict& block) {
    block["left"] = true;
    if (is_around(block)) {
      nb::handle(variable_).attr("set")(innermost_not_left());
    } else {
      block["fields"] = nb::none();  // left in another context than it was entered in, where it would be found for ever
    }
  }

 private:
  static nb::object innermost() { return nb::handle(variable_).attr("get")(nb::none()); }
  static nb::object innermost_not_left() {
    nb::object block = innermost();
    while (!block.is_none() && nb::borrow<nb::dict>(block).contains("left")) block = block["around"];
    return block;
  }
  static bool is_around(nb::handle wanted) {
    for (nb::object block = innermost(); !block.is_none(); block = block["around"])
      if (block.is(wanted)) return true;
    return false;
  }
  static BackoffContext context() {
    return call_python([] {
      for (nb::object block = innermost(); !block.is_none(); block = block["around"]) {
        const bool own = nb::cast<unsigned long>(block["thread"]) == PyThread_get_thread_ident();
        if (const nb::object fields = block["fields"]; !own && !fields.is_none()) return context_from_python(fields);
      }
      return BackoffContext{};
    });
  }

  static inline PyObject* variable_ = nullptr;  // owned for ever
};

/// `with backoff_context(...)` around the built-in provider. Attached threads only.
class ContextManager {
 public:
  explicit ContextManager(nb::handle given) : fields_(given) {}
  [[nodiscard]] nb::handle fields() const noexcept { return fields_.get(); }

  nb::object enter() {
    nb::dict fields = context_to_python(SyncBackoff::builtin().current_context());
    fields.update(nb::borrow<nb::dict>(fields_.get()));
    Entered entered{std::this_thread::get_id(), SyncBackoff::builtin().enter_context(context_from_python(fields)), {}};
    entered.block = share(HandedOn::enter(fields));
    entered_.push_back(std::move(entered));
    return nb::borrow(fields_.get());
  }

  /// What the running thread entered last; where it entered nothing, what any other did: a generator or a task may go on
  /// elsewhere.
  void leave() {
    if (entered_.empty()) return;
    const auto own =
        std::find_if(entered_.rbegin(), entered_.rend(), [](const Entered& each) { return each.thread == std::this_thread::get_id(); });
    const auto left = own == entered_.rend() ? entered_.end() - 1 : own.base() - 1;
    const std::shared_ptr<void> scope = std::move(left->scope);  // its end may run code of the host, which may come back here
    const SharedRef block = std::move(left->block);
    entered_.erase(left);
    if (block) HandedOn::leave(nb::borrow<nb::dict>(block->get()));
  }

 private:
  struct Entered {
    std::thread::id thread;
    std::shared_ptr<void> scope;
    SharedRef block;
  };
  PyRef fields_;
  std::vector<Entered> entered_;
};

/// `with backoff_context(...)` around the host's provider, whose own context may be a generator that hands on only when it
/// is entered.
struct ForwardedContext {
  PyRef manager;

  explicit ForwardedContext(nb::handle given) : manager(given) {}
  [[nodiscard]] nb::object call(const char* method, const nb::args& arguments) const {
    const ForwardingToHost forwarding;
    return manager.get().attr(method)(*arguments);
  }
};

/// For the collector: a host often keeps one beside its own stop callback. The dict is the link it cuts.
int traverse_context(PyObject* self, visitproc visit, void* arg) noexcept {
  Py_VISIT(Py_TYPE(self));
  if (nb::inst_ready(self)) Py_VISIT(nb::inst_ptr<ContextManager>(self)->fields().ptr());
  return 0;
}

PyType_Slot context_slots[] = {{Py_tp_traverse, reinterpret_cast<void*>(traverse_context)}, {0, nullptr}};

PyObject* builtin_namespace = nullptr;  // owned for ever

/// Stateless: made anew for every delay and every sleep.
struct Policy {};

nb::object backoff_context(nb::handle data_dir, nb::handle surface, nb::handle stop_requested) {
  nb::dict fields;
  if (!data_dir.is_none()) {
    static_cast<void>(path_argument(data_dir, "data_dir"));
    fields["data_dir"] = data_dir;
  }
  if (!surface.is_none()) fields["surface"] = to_python(text_argument(surface, "surface"));
  if (!stop_requested.is_none()) {
    if (PyCallable_Check(stop_requested.ptr()) == 0) throw TypeError("stop_requested must be callable");
    fields["stop_requested"] = stop_requested;
  }
  if (const nb::object module = ForwardingToHost::target(); module.is_valid()) {
    const ForwardingToHost forwarding;
    return nb::cast(new ForwardedContext(module.attr("backoff_context")(**fields)), nb::rv_policy::take_ownership);
  }
  return nb::cast(new ContextManager(fields), nb::rv_policy::take_ownership);
}

nb::dict current_context() {
  if (const nb::object module = ForwardingToHost::target(); module.is_valid()) {
    const ForwardingToHost forwarding;
    nb::dict copy;
    copy.update(nb::object(module.attr("current_context")()));
    return copy;
  }
  return context_to_python(SyncBackoff::builtin().current_context());
}

bool policy_sleep(const Policy&, double wait_seconds, nb::object sleep, nb::object stop_requested) {
  std::function<bool()> stop;
  if (!stop_requested.is_none()) stop = StopCallback{share(stop_requested)};
  /// Sleeps as the caller asks, if it brings its own way.
  struct CallerClock : Clock {
    SharedRef sleeper;
    std::int64_t monotonic_ns() override { return Clock::real().monotonic_ns(); }
    double wall_seconds() override { return Clock::real().wall_seconds(); }
    void sleep(double seconds) override {
      call_python([&] { sleeper->get()(seconds); });
    }
  };
  CallerClock caller;
  if (!sleep.is_none()) caller.sleeper = share(sleep);
  const Released released;
  return SyncBackoff::builtin().sleep(wait_seconds, caller.sleeper ? static_cast<Clock&>(caller) : Clock::real(), stop);
}

nb::object event_fields(nb::object surface, std::int64_t attempt, double wait_seconds, nb::object reason, nb::object file_path) {
  return to_python(SyncBackoff::builtin().sync_backoff_event_fields(text_form(surface), static_cast<int>(attempt), wait_seconds,
                                                                    text_form(reason), text_form(file_path)));
}

/// The module of the host in force, or an object of the same operations around the built-in provider.
nb::object backoff_module() {
  const nb::object module = host_backoff_module();
  return module.is_valid() ? module : nb::borrow(builtin_namespace);
}

}  // namespace

void bind_backoff(nb::module_& module) {
  HandedOn::begin();
  nb::class_<ContextManager>(module, "_BackoffContext", nb::type_slots(context_slots), "The context manager that backoff_context returns.")
      .def("__enter__", &ContextManager::enter)
      .def(
          "__exit__", [](ContextManager& self, nb::handle, nb::handle, nb::handle) { self.leave(); }, nb::arg().none(), nb::arg().none(),
          nb::arg().none());

  nb::class_<ForwardedContext> forwarded(module, "_ForwardedContext", "The same of a host's own provider.");
  for (const char* method : {"__enter__", "__exit__"}) {
    forwarded.def(method, [method](const ForwardedContext& self, const nb::args& arguments) { return self.call(method, arguments); });
  }

  module.def("backoff_context", backoff_context, nb::kw_only(), nb::arg("data_dir") = nb::none(), nb::arg("surface") = nb::none(),
             nb::arg("stop_requested") = nb::none(),
             nb::sig("def backoff_context(*, data_dir: object = None, surface: object = None, stop_requested: object = None)"
                     " -> contextlib.AbstractContextManager[dict[str, object]]"),
             "Make this the running thread's back-off context for a `with` block. What is not given, or is None, stays as in the\n"
             "block around it. The block may end on another thread than it began on. Threads that run in a copy of the host's\n"
             "context, as those of asyncio.to_thread, begin with it.\n\n"
             "data_dir: the directory whose sync-progress.json shows a wait. surface: the name of the waiting operation.\n"
             "stop_requested: a callable; true ends the wait with SyncBackoffCancelled.");
  module.def("current_context", current_context, nb::sig("def current_context() -> dict[str, object]"),
             "A copy of the running thread's back-off context.");

  nb::class_<Policy>(module, "_SyncBackoffPolicy", "0.5 s doubled per attempt, capped at 30 s, with a jitter of 20 %.")
      .def(nb::init<>())
      .def(
          "delay_seconds",
          [](const Policy&, std::int64_t attempt_index) { return SyncBackoff::builtin().delay_seconds(static_cast<int>(attempt_index)); },
          nb::arg("attempt_index"))
      .def("sleep", policy_sleep, nb::arg("wait_seconds"), nb::arg("sleep") = nb::none(), nb::arg("stop_requested") = nb::none());

  nb::object builtin = nb::module_::import_("types").attr("SimpleNamespace")();
  builtin.attr("SyncBackoffPolicy") = module.attr("_SyncBackoffPolicy");
  builtin.attr("SyncBackoffCancelled") = python_class(error_class::SyncBackoffCancelled);
  builtin.attr("backoff_context") = module.attr("backoff_context");
  builtin.attr("current_context") = module.attr("current_context");
  builtin.attr("sync_backoff_event_fields") = nb::cpp_function(event_fields, nb::arg("surface"), nb::arg("attempt"),
                                                               nb::arg("wait_seconds"), nb::arg("reason"), nb::arg("file_path"));
  builtin_namespace = builtin.release().ptr();
  module.def("_sync_backoff_module", backoff_module);
}

}  // namespace brackenfen::sync::python
