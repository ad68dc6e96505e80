#include "sync/neighbours/era_config.hpp"

namespace brackenfen::sync {
namespace {

class BuiltinEraConfig final : public EraConfig {
 public:
  const EpochNames& epoch_names() const override { return names_; }

 private:
  EpochNames names_;
};

}  // namespace

const EraConfig& EraConfig::builtin() {
  static const EraConfig& era_config = *new BuiltinEraConfig;
  return era_config;
}

}  // namespace brackenfen::sync
