#include "tools/distribution/advance.hpp"

#include <fmt/chrono.h>
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/era/era_current.hpp"
#include "tools/distribution/check.hpp"
#include "tools/distribution/report.hpp"
#include "tools/distribution/say.hpp"
#include "tools/distribution/stop.hpp"

namespace brackenfen::sync::distribution {
namespace {

void wait(double seconds) { Clock::real().sleep(std::max(0.0, seconds)); }

std::string time_in(double seconds) {
  const auto time = std::chrono::system_clock::now() + std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1e3));
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(time)));
}

class Course {
 public:
  explicit Course(const AdvanceOptions& options) : options_(options), paths_{absolute_path(options.tree)} {}

  void run() {
    if (options_.step) {
      take(*options_.step, options_.sources.empty() ? std::string() : options_.sources.front());
      return;
    }
    check_sources();
    for (const std::string& source : options_.sources) {
      const double announced = std::min(options_.announced_seconds, options_.active_seconds);
      wait(options_.active_seconds - announced);
      if (announced > 0) take(EraStep::Announce);
      wait(announced);
      take(EraStep::Close);
      wait(options_.closing_seconds);
      take(EraStep::Gap);
      wait(options_.gap_seconds);
      take(EraStep::Open, source);
    }
  }

 private:
  /// Before the first step: a mistake found when an era is over would leave its clients in the gap.
  void check_sources() const {
    std::int64_t era = current().era;
    for (const std::string& source : options_.sources) check_documents(scan_source(source).files, ++era);
  }

  void take(EraStep step, const std::string& source = {}) {
    const PublishedManifest published = current();
    EraStatus status;
    status.era = published.era;
    switch (step) {
      case EraStep::Announce:
        status.next_closing_at = time_in(options_.announced_seconds);
        say(stdout, fmt::format("era {}: closes at {}", published.era, *status.next_closing_at));
        break;
      case EraStep::Close:
        status.state = "closing";
        say(stdout, fmt::format("era {}: closing", published.era));
        break;
      case EraStep::Reopen:
        say(stdout, fmt::format("era {}: active again", published.era));
        break;
      case EraStep::Gap:
        status.era.reset();
        status.state = "between_eras";
        say(stdout, fmt::format("between eras: {} is over", published.era));
        break;
      case EraStep::Open:
        open(published, source);
        return;
    }
    status.min_library_version = options_.min_library_version ? *options_.min_library_version : stated_minimum();
    write_era(paths_, status, options_.shape);
  }

  /// What the tree asks of clients now.
  [[nodiscard]] std::string stated_minimum() const {
    const Document present = parse_era_current(read_file(paths_.era_current()));
    return std::string(present.get("min_library_version").if_text().value_or(EraStatus().min_library_version));
  }

  [[nodiscard]] PublishedManifest current() const { return require_published_manifest(paths_); }

  void open(const PublishedManifest& before, const std::string& source) const {
    PublishOptions publication;
    publication.source = source;
    publication.out = options_.tree;
    publication.era = before.era + 1;
    publication.version = before.version + 1;
    publication.era_shape = options_.shape;
    if (options_.min_library_version) publication.min_library_version = *options_.min_library_version;
    publication.pnl_column_count = before.pnl_column_count;
    publication.base_url = options_.base_url.value_or(before.base_url);
    const PublishReport report = publish(publication);
    say(stdout, fmt::format("era {}: active, version {}: {} files ({} placed, {} kept, {} dropped)", publication.era, publication.version,
                            report.files, report.placed, report.kept, report.dropped));
    print_warnings(report.warnings);
    stop_point(Stage::Published);
  }

  const AdvanceOptions& options_;
  const TreePaths paths_;
};

}  // namespace

void advance(const AdvanceOptions& options) { Course(options).run(); }

}  // namespace brackenfen::sync::distribution
