#include "sync/neighbours/deployment.hpp"

#include <utility>

#include "sync/base/values/convert.hpp"
#include "sync/base/version.hpp"
#include "sync/neighbours/release_version.hpp"

namespace brackenfen::sync {
namespace {

constexpr const ErrorClass* LIBRARY_UPDATE_REQUIRED_PARENTS[] = {&error_class::Exception};

class BuiltinDeployment final : public Deployment {
 public:
  std::string current_version() const override { return std::string(LIBRARY_VERSION); }
  bool check_update(const std::string&) const override { return false; }
  int compare_versions(const std::string& left, const Value& right) const override {
    const auto text = right.if_text();
    if (!text) throw ValueError("Invalid version: " + to_quoted(right));
    return compare_release_versions(left, *text);
  }
  UpdateResult auto_update(const Value&) const override { return {false, "this installation does not update itself"}; }
  const ErrorClass& library_update_required_class() const override { return error_class::LibraryUpdateRequired; }
  Error library_update_required(std::string text) const override { return Error(error_class::LibraryUpdateRequired, std::move(text)); }
};

}  // namespace

namespace error_class {
constinit const ErrorClass LibraryUpdateRequired("LibraryUpdateRequired", LIBRARY_UPDATE_REQUIRED_PARENTS);
}  // namespace error_class

const Deployment& Deployment::builtin() {
  static const Deployment& deployment = *new BuiltinDeployment;
  return deployment;
}

}  // namespace brackenfen::sync
