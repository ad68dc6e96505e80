#include "python/adapters/search_consumers.hpp"

#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/rotation_records.hpp"
#include "python/conversion/values.hpp"

namespace brackenfen::sync::python {
namespace {

nb::object vocabulary_to_python(const ScopedVocabulary& vocabulary) {
  nb::object own = object_of(vocabulary.own);
  return own.is_valid() ? own : to_python(vocabulary.document);
}

/// A type of its own, so that the callable can be handed back.
struct HostRefresh {
  SharedRef callable;
  void operator()(const RotationStateRef& rotation_state, const ScopedVocabulary& vocabulary) const {
    call_python([&] { callable->get()(rotation_state_to_python(rotation_state), vocabulary_to_python(vocabulary)); });
  }
};

class HostSearchConsumer : public RotationSearchConsumer, public HostObject {
 public:
  using HostObject::HostObject;
  bool is(const RotationSearchConsumer& other) const noexcept override {
    const auto* host = dynamic_cast<const HostSearchConsumer*>(&other);
    return host != nullptr && host->object().ptr() == object().ptr();
  }
  SearchRefresh refresh_rotation_scope() const override {
    return call_python([&]() -> SearchRefresh {
      const nb::object refresh = attribute_or_none(object(), "refresh_rotation_scope");
      if (PyCallable_Check(refresh.ptr()) == 0) return nullptr;
      return HostRefresh{share(refresh)};
    });
  }
  std::optional<std::string> attribute(const char* name) const override {
    return call_python([&]() -> std::optional<std::string> {
      const nb::object value = attribute_or_none(object(), name);
      if (value.is_none()) return std::nullopt;
      return text_form(value);
    });
  }
};

}  // namespace

SearchConsumerRef search_consumer(nb::handle object) { return std::make_shared<HostSearchConsumer>(object); }

nb::object refresh_payload_to_python(const SearchRefreshPayload& payload) {
  const auto* host = payload.refresh.target<HostRefresh>();
  const nb::object refresh = host == nullptr ? nb::object(nb::none()) : nb::borrow(host->callable->get());
  return nb::make_tuple(refresh, rotation_state_to_python(payload.rotation_state), vocabulary_to_python(payload.vocabulary));
}

}  // namespace brackenfen::sync::python
