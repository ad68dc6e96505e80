#include "python/adapters/neighbours_backoff.hpp"

#include <utility>

#include "python/adapters/callables.hpp"
#include "python/adapters/neighbours_lookup.hpp"
#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/values.hpp"
#include "sync/base/threads/failure.hpp"

namespace brackenfen::sync::python {
namespace {

/// All fields of a context as the host gave them.
struct PythonFields : HostContextFields {
  explicit PythonFields(nb::handle dict) : fields(dict) {}
  PyRef fields;
};

/// The provider bound first, which stays when its module leaves sys.modules.
struct FirstBound {
  NeighbourModule module{"sync_backoff"};
  bool looked = false;
  SharedRef provider;  // empty: the built-in one
};
FirstBound& first_bound() {
  static FirstBound& instance = *new FirstBound;
  return instance;
}

/// A context of the host's module, left again on the thread that entered it.
class HostScope {
 public:
  explicit HostScope(nb::handle manager) : manager_(manager) {
    const ForwardingToHost forwarding;
    manager.attr("__enter__")();
  }
  HostScope(const HostScope&) = delete;
  HostScope& operator=(const HostScope&) = delete;
  ~HostScope() {
    // Where the interpreter is going, the thread's context goes with it.
    drop_failure([this] {
      const Attached guard;
      const nb::error_scope raised_meanwhile;
      const ForwardingToHost forwarding;
      try {
        manager_.get().attr("__exit__")(nb::none(), nb::none(), nb::none());
      } catch (nb::python_error& error) {
        error.discard_as_unraisable("brackenfen.sync_backoff.backoff_context");
      }
      manager_.clear();
    });
  }

 private:
  PyRef manager_;
};

class HostSyncBackoff : public SyncBackoff {
 public:
  explicit HostSyncBackoff(nb::handle module) : module_(module) {}

  double delay_seconds(int attempt_index) override {
    return call_python([&] { return real_argument(policy().attr("delay_seconds")(attempt_index), "delay_seconds"); });
  }

  bool sleep(double wait_seconds, Clock& clock, const std::function<bool()>& stop_requested) override {
    return call_python([&] {
      const nb::object system_sleep = nb::cpp_function([&clock](double seconds) {  // the policy may keep it, as it may keep what follows
        const Released released;
        clock.sleep(seconds);
      });
      return truth(
          policy().attr("sleep")(wait_seconds, nb::arg("sleep") = system_sleep, nb::arg("stop_requested") = stop_callable(stop_requested)));
    });
  }

  BackoffContext current_context() override {
    return call_python([&] {
      const ForwardingToHost forwarding;
      return context_from_python(module_.get().attr("current_context")());
    });
  }

  std::shared_ptr<void> enter_context(BackoffContext context) override {
    return call_python([&]() -> std::shared_ptr<void> {
      const ForwardingToHost forwarding;
      return std::make_shared<HostScope>(module_.get().attr("backoff_context")(**context_to_python(context)));
    });
  }

  Document sync_backoff_event_fields(std::string_view surface, int attempt, double wait_seconds, std::string_view reason,
                                     std::string_view file_path) override {
    return call_python([&] {
      return document_argument(
          module_.get().attr("sync_backoff_event_fields")(nb::arg("surface") = to_python(surface), nb::arg("attempt") = attempt,
                                                          nb::arg("wait_seconds") = wait_seconds, nb::arg("reason") = to_python(reason),
                                                          nb::arg("file_path") = to_python(file_path)),
          "the result of sync_backoff_event_fields");
    });
  }

  Error cancelled_error() override {
    return call_python([&] { return to_error(nb::object(module_.get().attr("SyncBackoffCancelled")())); });
  }

 private:
  nb::object policy() const { return module_.get().attr("SyncBackoffPolicy")(); }
  PyRef module_;
};

/// Owned by nobody: the built-in provider lives for the whole process.
std::shared_ptr<SyncBackoff> builtin_backoff() { return {std::shared_ptr<void>(), &SyncBackoff::builtin()}; }

/// One field, or the empty text where the host gave what cannot be used: the others hold all the same.
template <typename Convert>
std::string usable_field(nb::handle fields, const char* name, Convert convert) {
  try {
    return call_python([&] {
      const nb::object field = mapping_item(fields, name);
      return truth(field) ? convert(field) : std::string();
    });
  } catch (const Error&) {
    return {};
  }
}

}  // namespace

nb::object host_backoff_module() {
  FirstBound& first = first_bound();
  if (nb::object loaded = first.module.loaded(); loaded.is_valid()) {
    if (!first.looked) first.provider = share(loaded);
    first.looked = true;
    return loaded;
  }
  if (!first.looked) {
    const nb::object found = first.module.find();
    if (found.is_valid()) first.provider = share(found);
    first.looked = true;
  }
  return first.provider ? nb::borrow(first.provider->get()) : nb::object();
}

std::shared_ptr<SyncBackoff> backoff_in_force() {
  return call_python([]() -> std::shared_ptr<SyncBackoff> {
    const nb::object module = host_backoff_module();
    if (!module.is_valid()) return builtin_backoff();
    return std::make_shared<HostSyncBackoff>(module);
  });
}

nb::object backoff_cancelled_class() {
  const nb::object module = host_backoff_module();
  return module.is_valid() ? nb::object(module.attr("SyncBackoffCancelled")) : nb::borrow(python_class(error_class::SyncBackoffCancelled));
}

nb::dict context_to_python(const BackoffContext& context) {
  nb::dict fields;
  if (const auto* host = dynamic_cast<const PythonFields*>(context.host_fields.get()))
    fields.update(nb::borrow<nb::dict>(host->fields.get()));
  if (!context.data_dir.empty() && !truth(mapping_item(fields, "data_dir"))) fields["data_dir"] = path_to_python(context.data_dir);
  if (!context.surface.empty() && text_form(mapping_item(fields, "surface")) != context.surface)
    fields["surface"] = to_python(context.surface);
  if (context.stop_requested) fields["stop_requested"] = stop_callable(context.stop_requested);
  return fields;
}

BackoffContext context_from_python(nb::handle mapping) {
  nb::dict fields;
  fields.update(mapping);
  BackoffContext context;
  context.data_dir = usable_field(fields, "data_dir", [](nb::handle field) { return path_argument(field, "data_dir"); });
  context.surface = usable_field(fields, "surface", [](nb::handle field) { return text_form(field); });
  if (const nb::object stop = mapping_item(fields, "stop_requested"); PyCallable_Check(stop.ptr()) != 0)
    context.stop_requested = StopCallback{share(stop)};
  context.host_fields = std::make_shared<const PythonFields>(fields);
  return context;
}

}  // namespace brackenfen::sync::python
