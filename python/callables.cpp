#include "python/callables.hpp"

#include "python/errors.hpp"
#include "python/values.hpp"

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
  void record_sync_update(std::string_view relative_path, std::string_view kind, std::string_view sha256) override {
    call_python([&] {
      object().attr("record_sync_update")(nb::arg("relative_path") = to_python(relative_path), nb::arg("kind") = to_python(kind),
                                          nb::arg("sha256") = to_python(sha256));
    });
  }
};

class HostRotationState : public RotationState, public HostObject {
 public:
  using HostObject::HostObject;
  std::vector<std::string> active_relative_paths() const override {
    return call_python([&] { return texts_argument(object().attr("active_relative_paths"), "active_relative_paths"); });
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

std::shared_ptr<const RotationState> rotation_state(nb::handle object) { return adapt<HostRotationState>(object); }

RetryStatusCallback retry_status_callback(nb::handle callable) {
  if (callable.is_none()) return nullptr;
  return [callback = share(callable)](double wait_seconds) { call_python([&] { callback->get()(wait_seconds); }); };
}

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
