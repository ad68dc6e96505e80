#include "tools/distribution/report.hpp"

#include <fmt/core.h>

#include <cstdio>

#include "tools/distribution/progress.hpp"

namespace brackenfen::sync::distribution {
namespace {

void print_files(const char* what, const NamedFiles& files) {
  if (files.empty()) return;
  const std::string size = files.bytes() > 0 ? " (" + size_text(files.bytes()) + ")" : "";
  fmt::print("  {} {}{}: {}\n", files.count(), what, size, files.text());
}

}  // namespace

void print_report(const PublishReport& report) {
  fmt::print("published era {} version {}: {} files, {} bytes ({} placed, {} kept, {} dropped, {} left out) in {:.1f} s\n", report.era,
             report.version, report.files, report.bytes, report.placed, report.kept, report.dropped, report.left_out.count(),
             report.seconds);
  if (report.changes) {
    const auto& [era, version, added, changed, removed] = *report.changes;
    const bool any = !added.empty() || !changed.empty() || !removed.empty();
    fmt::print("since era {} version {}:{}\n", era, version, any ? "" : " the same files");
    print_files("new", added);
    print_files("changed", changed);
    print_files("removed", removed);
  }
  if (!report.left_out.empty()) fmt::print("left out (hidden, temporary, or a client's own): {}\n", report.left_out.text());
  std::fflush(stdout);  // before the warnings
  print_warnings(report.warnings);
}

void print_warnings(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) fmt::print(stderr, "warning: {}\n", warning);
}

}  // namespace brackenfen::sync::distribution
