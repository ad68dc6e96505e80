#include "python/adapters/callables.hpp"

#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/values.hpp"

namespace brackenfen::sync::python {
namespace {

class HostTokenSource : public TokenSource, public HostObject {
 public:
  using HostObject::HostObject;
  std::string token() override {
    return call_python([&] { return text_form(object()()); });
  }
  std::optional<std::string> type_where_not_callable() const override {
    return call_python([&]() -> std::optional<std::string> {
      if (PyCallable_Check(object().ptr()) != 0) return std::nullopt;
      return text_form(object().type());
    });
  }
};

class HostGuard : public RuntimeFreshnessGuard, public HostObject {
 public:
  using HostObject::HostObject;
  void record_sync_update(std::string_view relative_path, const Value& kind, const Value& sha256) override {
    call_python([&] {
      object().attr("record_sync_update")(nb::arg("relative_path") = to_python(relative_path), nb::arg("kind") = to_python(kind),
                                          nb::arg("sha256") = to_python(sha256));
    });
  }
};

class HostEraCallback : public EraCallback, public HostObject {
 public:
  using HostObject::HostObject;
  void notify(std::string_view event_type, const Value& era_number) override {
    call_python([&] { object()(to_python(event_type), to_python(era_number)); });
  }
  const HostOrigin* origin() const noexcept override { return this; }
  bool equals(const EraCallback& other) const override {
    const auto* host = dynamic_cast<const HostEraCallback*>(&other);
    if (host == nullptr) return this == &other;
    return call_python([&] {
      const int equal = PyObject_RichCompareBool(object().ptr(), host->object().ptr(), Py_EQ);
      if (equal < 0) throw nb::python_error();
      return equal == 1;
    });
  }
};

class HostEraManager : public EraManager, public HostObject {
 public:
  using HostObject::HostObject;
  std::optional<Value> manifest_era() override {
    return call_python([&]() -> std::optional<Value> {
      const nb::object manifest = object().attr("_manifest");
      if (manifest.is_none()) return std::nullopt;
      return value_argument(manifest.attr("era_number"), "era_number");
    });
  }
  void trigger_era_transition(const Value& new_era_id, const SearchesFn& kill_searches_fn, const SearchesFn& restart_searches_fn) override {
    call_python([&] {
      object().attr("trigger_era_transition")(nb::arg("new_era_id") = to_python(new_era_id),
                                              nb::arg("kill_searches_fn") = searches_callable(kill_searches_fn),
                                              nb::arg("restart_searches_fn") = searches_callable(restart_searches_fn));
    });
  }
};

template <typename Adapter>
std::shared_ptr<Adapter> adapt(nb::handle object) {
  return object.is_none() ? nullptr : std::make_shared<Adapter>(object);
}

}  // namespace

std::shared_ptr<TokenSource> token_source(nb::handle callable) { return std::make_shared<HostTokenSource>(callable); }

nb::object fixed_token_callable(std::string token) {
  return nb::cpp_function([token = std::move(token)] { return to_python(token); });
}

std::shared_ptr<RuntimeFreshnessGuard> freshness_guard(nb::handle object) { return adapt<HostGuard>(object); }

RetryStatusCallback retry_status_callback(nb::handle callable) {
  if (callable.is_none()) return nullptr;
  return [callback = share(callable)](double wait_seconds) { call_python([&] { callback->get()(wait_seconds); }); };
}

std::shared_ptr<EraCallback> era_callback(nb::handle callable) { return std::make_shared<HostEraCallback>(callable); }

void HostSearchesFn::operator()() const {
  call_python([&] { callable->get()(); });
}

SearchesFn searches_fn(nb::handle callable) {
  if (callable.is_none()) return nullptr;
  return HostSearchesFn{share(callable)};
}

nb::object searches_callable(const SearchesFn& searches_fn) {
  if (!searches_fn) return nb::none();
  if (const auto* host = searches_fn.target<HostSearchesFn>()) return nb::borrow(host->callable->get());
  return nb::cpp_function([searches_fn] {
    const Released released;
    searches_fn();
  });
}

std::shared_ptr<EraManager> era_manager(nb::handle object) { return std::make_shared<HostEraManager>(object); }

bool StopCallback::operator()() const {
  return call_python([&] { return truth(callable->get()()); });
}

nb::object stop_callable(const std::function<bool()>& stop_requested) {
  if (const auto* host = stop_requested.target<StopCallback>()) return nb::borrow(host->callable->get());
  return nb::cpp_function([stop_requested] {
    const Released released;
    return stop_requested();
  });
}

}  // namespace brackenfen::sync::python
