#include "python/adapters/neighbours_era.hpp"

#include <utility>

#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/values.hpp"

namespace brackenfen::sync::python {
namespace {

class HostTrackerIdentity : public TrackerIdentity, public HostObject {
 public:
  using HostObject::HostObject;
};

class HostSearchTracker : public SearchTracker {
 public:
  explicit HostSearchTracker(nb::handle tracker) : tracker_(tracker) {}
  void handle_era_transition(const Value& new_era_id, const Value& previous_era_id) override {
    call_python([&] {
      tracker_.get().attr("handle_era_transition")(nb::arg("new_era_id") = to_python(new_era_id),
                                                   nb::arg("previous_era_id") = to_python(previous_era_id));
    });
  }
  void close() override {
    call_python([&] { tracker_.get().attr("close")(); });
  }

 private:
  PyRef tracker_;
};

/// -1, 0 or 1 as the number that a comparison gave is below, at or above zero.
int sign(nb::handle number) {
  const nb::object zero = nb::int_(0);
  const auto holds = [&](int comparison) {
    const int answer = PyObject_RichCompareBool(number.ptr(), zero.ptr(), comparison);
    if (answer < 0) throw nb::python_error();
    return answer == 1;
  };
  return holds(Py_LT) ? -1 : holds(Py_GT) ? 1 : 0;
}

}  // namespace

std::string HostDeployment::current_version() const {
  return call_python([&] { return text_form(module_.get().attr("_CURRENT_VERSION")); });
}

bool HostDeployment::check_update(const std::string& current_version) const {
  return call_python([&] { return !module_.get().attr("check_update")(to_python(current_version)).is_none(); });
}

int HostDeployment::compare_versions(const std::string& left, const Value& right) const {
  return call_python([&] { return sign(module_.get().attr("_compare_versions")(to_python(left), to_python(right))); });
}

Deployment::UpdateResult HostDeployment::auto_update(const Value& min_version) const {
  return call_python([&] {
    const nb::object outcome = module_.get().attr("auto_update")(to_python(min_version));
    UpdateResult result;
    if (const nb::object success = optional_attribute(outcome, "success"); success.is_valid()) result.success = truth(success);
    if (result.success) return result;
    const nb::object warning = optional_attribute(outcome, "warning");
    result.warning = warning.is_valid() ? text_form(warning) : std::string(UPDATE_FAILED_WITHOUT_WARNING);
    return result;
  });
}

const ErrorClass& HostDeployment::library_update_required_class() const {
  return call_python([&]() -> const ErrorClass& {
    const nb::object found = module_.get().attr("LibraryUpdateRequired");
    if (PyExceptionClass_Check(found.ptr()) == 0) {
      throw TypeError("brackenfen.deployment.LibraryUpdateRequired must be an exception class");
    }
    return describe_class(found);
  });
}

Error HostDeployment::library_update_required(std::string text) const {
  return call_python([&] { return to_error(nb::object(module_.get().attr("LibraryUpdateRequired")(to_python(text)))); });
}

std::unique_ptr<SearchTracker> HostSearchTracking::search_tracker(const std::string& data_dir,
                                                                  const std::shared_ptr<const TrackerIdentity>& identity) const {
  return call_python([&]() -> std::unique_ptr<SearchTracker> {
    const auto* known = dynamic_cast<const HostTrackerIdentity*>(identity.get());
    const nb::object object = known == nullptr ? nb::object(nb::none()) : nb::borrow(known->object());
    return std::make_unique<HostSearchTracker>(module_.get().attr("SearchTracker")(path_to_python(data_dir), nb::arg("identity") = object));
  });
}

std::unique_ptr<SearchTracker> HostSearchTracking::search_tracker(const std::string& data_dir) const {
  return call_python([&]() -> std::unique_ptr<SearchTracker> {
    return std::make_unique<HostSearchTracker>(module_.get().attr("SearchTracker")(path_to_python(data_dir)));
  });
}

std::shared_ptr<const TrackerIdentity> HostIdentity::resolve_identity_for_data_dir(const std::string& data_dir) const {
  return call_python([&]() -> std::shared_ptr<const TrackerIdentity> {
    const nb::object identity = resolve_.get()(path_to_python(data_dir));
    if (identity.is_none()) return nullptr;
    return std::make_shared<const HostTrackerIdentity>(identity);
  });
}

void HostAgentOnboarding::update_nudge(std::string_view reason, const Value& new_era_id, const Value& previous_era_id) const {
  call_python([&] {
    module_.get().attr("update_nudge")(to_python(reason), nb::arg("new_era_id") = to_python(new_era_id),
                                       nb::arg("previous_era_id") = to_python(previous_era_id));
  });
}

}  // namespace brackenfen::sync::python
