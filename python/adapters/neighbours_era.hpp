// The host's modules that an era transition talks to. Each adapter is made attached, keeps the module for one
// operation, and serves any thread of it; an attribute is looked up when it is used, so that a module that lacks one
// fails there and not at the look-up.
#pragma once

#include <memory>
#include <string>

#include "python/interpreter/gate.hpp"
#include "sync/neighbours/agent_onboarding.hpp"
#include "sync/neighbours/deployment.hpp"
#include "sync/neighbours/identity.hpp"
#include "sync/neighbours/search_tracking.hpp"

namespace brackenfen::sync::python {

class HostDeployment : public Deployment {
 public:
  explicit HostDeployment(nb::handle module) : module_(module) {}
  std::string current_version() const override;
  bool check_update(const std::string& current_version) const override;
  int compare_versions(const std::string& left, const Value& right) const override;
  UpdateResult auto_update(const Value& min_version) const override;
  const ErrorClass& library_update_required_class() const override;
  Error library_update_required(std::string text) const override;

 private:
  PyRef module_;
};

class HostSearchTracking : public SearchTracking {
 public:
  explicit HostSearchTracking(nb::handle module) : module_(module) {}
  std::unique_ptr<SearchTracker> search_tracker(const std::string& data_dir,
                                                const std::shared_ptr<const TrackerIdentity>& identity) const override;
  std::unique_ptr<SearchTracker> search_tracker(const std::string& data_dir) const override;

 private:
  PyRef module_;
};

class HostIdentity : public Identity {
 public:
  /// Throws AttributeError for a module without the operation: then nothing is known of identities.
  explicit HostIdentity(nb::handle module) : resolve_(nb::object(module.attr("resolve_identity_for_data_dir"))) {}
  std::shared_ptr<const TrackerIdentity> resolve_identity_for_data_dir(const std::string& data_dir) const override;

 private:
  PyRef resolve_;
};

class HostAgentOnboarding : public AgentOnboarding {
 public:
  explicit HostAgentOnboarding(nb::handle module) : module_(module) {}
  void update_nudge(std::string_view reason, const Value& new_era_id, const Value& previous_era_id) const override;

 private:
  PyRef module_;
};

}  // namespace brackenfen::sync::python
