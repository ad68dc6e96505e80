#include "sync/neighbours/search_tracking.hpp"

#include <utility>

#include "sync/base/log.hpp"

namespace brackenfen::sync {
namespace {

class LoggingTracker final : public SearchTracker {
 public:
  explicit LoggingTracker(std::string data_dir) : data_dir_(std::move(data_dir)) {}
  void handle_era_transition(const Value& new_era_id, const Value& previous_era_id) override {
    log_debug("Search tracking: %s went from era %s to era %s", data_dir_, previous_era_id, new_era_id);
  }
  void close() override {}

 private:
  const std::string data_dir_;
};

class BuiltinSearchTracking final : public SearchTracking {
 public:
  std::unique_ptr<SearchTracker> search_tracker(const std::string& data_dir, const std::shared_ptr<const TrackerIdentity>&) const override {
    return search_tracker(data_dir);
  }
  std::unique_ptr<SearchTracker> search_tracker(const std::string& data_dir) const override {
    return std::make_unique<LoggingTracker>(data_dir);
  }
};

}  // namespace

const SearchTracking& SearchTracking::builtin() {
  static const SearchTracking& tracking = *new BuiltinSearchTracking;
  return tracking;
}

}  // namespace brackenfen::sync
