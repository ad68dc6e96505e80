#include "tools/distribution/report.hpp"

#include <fmt/core.h>

#include <cstdio>

#include "tools/distribution/progress.hpp"
#include "tools/distribution/say.hpp"

namespace brackenfen::sync::distribution {
namespace {

void print_files(const char* what, const NamedFiles& files) {
  if (files.empty()) return;
  const std::string size = files.bytes() > 0 ? " (" + size_text(files.bytes()) + ")" : "";
  say(stdout, fmt::format("  {} {}{}: {}", files.count(), what, size, files.text()));
}

}  // namespace

void print_report(const PublishReport& report) {
  say(stdout, fmt::format("published era {} version {}: {} files, {} bytes ({} placed, {} kept, {} dropped, {} left out) in {:.1f} s",
                          report.era, report.version, report.files, report.bytes, report.placed, report.kept, report.dropped,
                          report.left_out.count(), report.seconds));
  if (report.changes) {
    const auto& [era, version, added, changed, removed] = *report.changes;
    const bool any = !added.empty() || !changed.empty() || !removed.empty();
    say(stdout, fmt::format("since era {} version {}:{}", era, version, any ? "" : " the same files"));
    print_files("new", added);
    print_files("changed", changed);
    print_files("removed", removed);
  }
  if (!report.left_out.empty()) say(stdout, fmt::format("left out (hidden, temporary, or a client's own): {}", report.left_out.text()));
  print_warnings(report.warnings);
}

void print_warnings(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) say(stderr, "warning: " + warning);
}

}  // namespace brackenfen::sync::distribution
