#include "python/adapters/neighbours_host.hpp"

#include <atomic>
#include <memory>

#include "python/adapters/neighbours_backoff.hpp"
#include "python/adapters/neighbours_era.hpp"
#include "python/adapters/neighbours_lookup.hpp"
#include "python/adapters/neighbours_rotation.hpp"
#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/values.hpp"

namespace brackenfen::sync::python {
namespace {

// Each adapter is made attached, keeps the module for one operation, and serves any thread of it.

class HostTransportSecurity : public TransportSecurity {
 public:
  explicit HostTransportSecurity(nb::handle module) : module_(module) {}
  void validate_bearer_transport_url(std::string_view url) const override {
    call_python([&] { module_.get().attr("validate_bearer_transport_url")(to_python(url)); });
  }

 private:
  PyRef module_;
};

class HostAuth : public Auth {
 public:
  explicit HostAuth(nb::handle module) : module_(module), class_(error_class_of(module)), described_(describe_class(class_.get())) {}
  const ErrorClass& auth_error_class() const override { return described_; }
  Error auth_error(std::string text) const override {
    return call_python([&] { return to_error(nb::object(class_.get()(to_python(text)))); });
  }
  void notify_era_change(const Value& era_number) const override {
    call_python([&] { module_.get().attr("notify_era_change")(to_python(era_number)); });
  }

 private:
  static nb::object error_class_of(nb::handle module) {
    nb::object found = module.attr("AuthError");
    if (PyExceptionClass_Check(found.ptr()) == 0) throw TypeError("brackenfen.auth.AuthError must be an exception class");
    return found;
  }
  PyRef module_;
  PyRef class_;
  const ErrorClass& described_;
};

class HostEraConfig : public EraConfig {
 public:
  explicit HostEraConfig(nb::handle module) {
    const nb::object names = module.attr("EpochName");
    const auto value = [&](const char* member) { return text_form(names.attr(member).attr("value")); };
    names_ = {value("SIGNAL_IS"), value("STRATEGY_IS"), value("SIGNAL_OS")};
  }
  const EpochNames& epoch_names() const override { return names_; }

 private:
  EpochNames names_;
};

class HostSyncProgress : public SyncProgress {
 public:
  explicit HostSyncProgress(nb::handle module) : module_(module) {}
  std::optional<Value> manifest_file_size(const Value& file_info) const override {
    return call_python([&]() -> std::optional<Value> {
      const char* const label = "the result of manifest_file_size";
      const nb::object result = module_.get().attr("manifest_file_size")(to_python(file_info));
      const std::vector<nb::object> pair = elements_of(result, label);
      if (pair.size() != 2) refuse(label, "a pair", result);
      if (!truth(pair[0])) return std::nullopt;
      return value_argument(pair[1], label);
    });
  }

 private:
  PyRef module_;
};

class HostFreshness : public RuntimeModuleFreshness {
 public:
  explicit HostFreshness(nb::handle module) : module_(module), suffix_(text_form(module.attr("RUNTIME_MODULE_KIND_SUFFIX"))) {}
  const std::string& runtime_module_kind_suffix() const override { return suffix_; }
  bool is_runtime_module_kind(std::string_view kind) const override {
    return call_python([&] { return truth(module_.get().attr("is_runtime_module_kind")(to_python(kind))); });
  }

 private:
  PyRef module_;
  std::string suffix_;
};

class HostReasonDescriptions : public ReasonDescriptions {
 public:
  explicit HostReasonDescriptions(nb::handle module) : module_(module) {}
  ReasonDescription describe_reason(std::string_view error_class_name, std::string_view recovery, const Value& error_code,
                                    const Value& dependency, const Value& reason) const override {
    return call_python([&] {
      const nb::object described = module_.get().attr("describe_reason")(
          to_python(error_class_name), nb::arg("recovery") = to_python(recovery), nb::arg("error_code") = to_python(error_code),
          nb::arg("dependency") = to_python(dependency), nb::arg("reason") = to_python(reason));
      if (!is_mapping(described)) refuse("the result of describe_reason", "a mapping", described);
      const auto text = [&](const char* key) {
        const nb::object found = mapping_item(described, key);
        return truth(found) ? text_form(found) : std::string();
      };
      return ReasonDescription{text("rendered"), text("recovery")};
    });
  }

 private:
  PyRef module_;
};

class HostFunctionTokenSafety : public FunctionTokenSafety {
 public:
  explicit HostFunctionTokenSafety(nb::handle module) : module_(module) {}
  bool is_retired_public_function_token_name(std::string_view name) const override {
    return call_python([&] { return truth(module_.get().attr("is_retired_public_function_token_name")(to_python(name))); });
  }

 private:
  PyRef module_;
};

class HostFunctionsVocabulary : public FunctionsVocabulary {
 public:
  explicit HostFunctionsVocabulary(nb::handle module) : module_(module) {}
  Value merge_functions_vocabulary(const Document& functions, const Document& vocabulary, std::string_view named_universe,
                                   const Value& expected_era_number) const override {
    return call_python([&] {
      const nb::object merged = module_.get().attr("merge_functions_vocabulary")(
          nb::arg("functions") = to_python(functions), nb::arg("vocabulary") = to_python(vocabulary),
          nb::arg("named_universe") = to_python(named_universe), nb::arg("expected_era_number") = to_python(expected_era_number));
      return document_argument(merged, "the result of merge_functions_vocabulary");
    });
  }

 private:
  PyRef module_;
};

class HostLoggingStyle : public LoggingStyle {
 public:
  explicit HostLoggingStyle(nb::handle module) : module_(module) {}
  void log_library_surface_event(const SurfaceEvent& event) const override {
    call_python([&] {
      module_.get().attr("log_library_surface_event")(
          to_python(event.message), to_python(event.level), nb::arg("sub_service") = to_python(event.sub_service),
          nb::arg("component") = to_python(event.component), nb::arg("metadata") = to_python(event.metadata),
          nb::arg("source_function") = to_python(event.source_function), nb::arg("source_file") = to_python(event.source_file),
          nb::arg("source_line") = event.source_line);
    });
  }

 private:
  PyRef module_;
};

NeighbourModule& transport_security_module() {
  static NeighbourModule& module = *new NeighbourModule("_transport_security");
  return module;
}
NeighbourModule& auth_module() {
  static NeighbourModule& module = *new NeighbourModule("auth");
  return module;
}
NeighbourModule& era_config_module() {
  static NeighbourModule& module = *new NeighbourModule("era_config");
  return module;
}
NeighbourModule& sync_progress_module() {
  static NeighbourModule& module = *new NeighbourModule("_sync_progress");
  return module;
}
NeighbourModule& freshness_module() {
  static NeighbourModule& module = *new NeighbourModule("runtime_module_freshness");
  return module;
}
NeighbourModule& deployment_module() {
  static NeighbourModule& module = *new NeighbourModule("deployment");
  return module;
}
NeighbourModule& search_tracking_module() {
  static NeighbourModule& module = *new NeighbourModule("search_tracking");
  return module;
}
NeighbourModule& identity_module() {
  static NeighbourModule& module = *new NeighbourModule("identity");
  return module;
}
NeighbourModule& agent_onboarding_module() {
  static NeighbourModule& module = *new NeighbourModule("agent_onboarding");
  return module;
}
NeighbourModule& reason_descriptions_module() {
  static NeighbourModule& module = *new NeighbourModule("reason_descriptions");
  return module;
}

NeighbourModule& function_token_safety_module() {
  static NeighbourModule& module = *new NeighbourModule("_function_token_safety");
  return module;
}
NeighbourModule& functions_vocabulary_module() {
  static NeighbourModule& module = *new NeighbourModule("_functions_vocabulary");
  return module;
}
NeighbourModule& logging_style_module() {
  static NeighbourModule& module = *new NeighbourModule("logging_style");
  return module;
}

template <typename Interface, typename Adapter>
std::unique_ptr<const Interface> make_adapter(nb::handle module) {
  return std::make_unique<const Adapter>(module);
}

/// One neighbour of one operation, looked up when it is first asked for.
template <typename Interface, auto MAKE>
class Bound {
 public:
  const Interface& get(NeighbourModule& module) {
    if (const Interface* bound = bound_.load(std::memory_order_acquire)) return *bound;
    return call_python([&]() -> const Interface& {
      const nb::object found = module.find();
      // The import may have let another thread in.
      if (const Interface* bound = bound_.load(std::memory_order_acquire)) return *bound;
      if (found.is_valid()) adapter_ = MAKE(found);
      const Interface& chosen = adapter_ ? *adapter_ : Interface::builtin();
      bound_.store(&chosen, std::memory_order_release);
      return chosen;
    });
  }

 private:
  std::atomic<const Interface*> bound_{nullptr};
  std::unique_ptr<const Interface> adapter_;
};

class HostNeighbourSet : public NeighbourSet {
 public:
  const TransportSecurity& transport_security() override { return transport_security_.get(transport_security_module()); }
  const Auth& auth() override { return auth_.get(auth_module()); }
  const EraConfig& era_config() override { return era_config_.get(era_config_module()); }
  const SyncProgress& sync_progress() override { return sync_progress_.get(sync_progress_module()); }
  const RuntimeModuleFreshness& runtime_module_freshness() override { return freshness_.get(freshness_module()); }
  const ArtifactRotation& artifact_rotation() override { return rotation_.get(rotation_module()); }
  const ReasonDescriptions& reason_descriptions() override { return reason_descriptions_.get(reason_descriptions_module()); }
  const FunctionTokenSafety& function_token_safety() override { return function_token_safety_.get(function_token_safety_module()); }
  const FunctionsVocabulary& functions_vocabulary() override { return functions_vocabulary_.get(functions_vocabulary_module()); }
  const LoggingStyle& logging_style() override { return logging_style_.get(logging_style_module()); }
  const RotationSettings& rotation_settings() override { return rotation_settings_.get(rotation_settings_module()); }
  const Deployment& deployment() override { return deployment_.get(deployment_module()); }
  const SearchTracking& search_tracking() override { return search_tracking_.get(search_tracking_module()); }
  const Identity& identity() override { return identity_.get(identity_module()); }
  const AgentOnboarding& agent_onboarding() override { return agent_onboarding_.get(agent_onboarding_module()); }

 private:
  Bound<TransportSecurity, make_adapter<TransportSecurity, HostTransportSecurity>> transport_security_;
  Bound<Auth, make_adapter<Auth, HostAuth>> auth_;
  Bound<EraConfig, make_adapter<EraConfig, HostEraConfig>> era_config_;
  Bound<SyncProgress, make_adapter<SyncProgress, HostSyncProgress>> sync_progress_;
  Bound<RuntimeModuleFreshness, make_adapter<RuntimeModuleFreshness, HostFreshness>> freshness_;
  Bound<ArtifactRotation, host_artifact_rotation> rotation_;
  Bound<RotationSettings, host_rotation_settings> rotation_settings_;
  Bound<ReasonDescriptions, make_adapter<ReasonDescriptions, HostReasonDescriptions>> reason_descriptions_;
  Bound<LoggingStyle, make_adapter<LoggingStyle, HostLoggingStyle>> logging_style_;
  Bound<FunctionTokenSafety, make_adapter<FunctionTokenSafety, HostFunctionTokenSafety>> function_token_safety_;
  Bound<FunctionsVocabulary, make_adapter<FunctionsVocabulary, HostFunctionsVocabulary>> functions_vocabulary_;
  Bound<Deployment, make_adapter<Deployment, HostDeployment>> deployment_;
  Bound<SearchTracking, make_adapter<SearchTracking, HostSearchTracking>> search_tracking_;
  Bound<Identity, make_adapter<Identity, HostIdentity>> identity_;
  Bound<AgentOnboarding, make_adapter<AgentOnboarding, HostAgentOnboarding>> agent_onboarding_;
};

class HostNeighbours : public Neighbours {
 public:
  std::shared_ptr<NeighbourSet> bind() override { return std::make_shared<HostNeighbourSet>(); }
  std::shared_ptr<SyncBackoff> sync_backoff() override { return backoff_in_force(); }
};

}  // namespace

Neighbours& host_neighbours() {
  static Neighbours& neighbours = *new HostNeighbours;
  return neighbours;
}

Seams host_seams() {
  Seams seams = Seams::real();
  seams.neighbours = &host_neighbours();
  return seams;
}

nb::object auth_error_class() {
  const nb::object module = auth_module().find();
  return module.is_valid() ? nb::object(module.attr("AuthError")) : nb::borrow(python_class(error_class::AuthError));
}

nb::object library_update_required_class() {
  const nb::object module = deployment_module().find();
  return module.is_valid() ? nb::object(module.attr("LibraryUpdateRequired"))
                           : nb::borrow(python_class(error_class::LibraryUpdateRequired));
}

}  // namespace brackenfen::sync::python
