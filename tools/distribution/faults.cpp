#include "tools/distribution/faults.hpp"

#include <fmt/core.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "tools/distribution/say.hpp"

namespace brackenfen::sync::distribution {
namespace {

[[noreturn]] void refuse_setting(std::string_view name, std::string_view value, std::string_view wanted) {
  throw ValueError(fmt::format("{}={} is not {}", name, value, wanted));
}

std::int64_t parse_count(std::string_view name, std::string_view value, std::int64_t least) {
  std::int64_t number = 0;
  const auto [end, failure] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (failure != std::errc{} || end != value.data() + value.size() || number < least) {
    refuse_setting(name, value, fmt::format("a whole number from {}", least));
  }
  return number;
}

double parse_seconds(std::string_view name, std::string_view value, std::string_view whole) {
  const std::optional<double> seconds = parse_real(value);
  if (!seconds || !std::isfinite(*seconds) || *seconds < 0) refuse_setting(name, whole, "a number of seconds");
  return *seconds;
}

using Setter = std::function<void(Fault&, std::string_view name, std::string_view value)>;

void set_word(Fault& fault, std::string_view name, std::string_view value) {
  fault.words = fault.words.with(replace_char(name, '-', '_'), value);
}

/// Settings of the form NAME=VALUE.
const std::map<std::string_view, Setter>& valued_settings() {
  static const auto& settings = *new std::map<std::string_view, Setter>{
      {"status",
       [](Fault& fault, std::string_view name, std::string_view value) {
         const std::int64_t status = parse_count(name, value, 0);
         if (status < 200 || status > 599) refuse_setting(name, value, "a status from 200 to 599");
         fault.status = static_cast<unsigned>(status);
       }},
      {"delay",
       [](Fault& fault, std::string_view name, std::string_view value) { fault.delay_seconds = parse_seconds(name, value, value); }},
      {"drop-after",
       [](Fault& fault, std::string_view name, std::string_view value) { fault.drop_after_bytes = parse_count(name, value, 0); }},
      {"drip",
       [](Fault& fault, std::string_view name, std::string_view value) { fault.drip_bytes_per_second = parse_count(name, value, 1); }},
      {"times", [](Fault& fault, std::string_view name, std::string_view value) { fault.times = parse_count(name, value, 1); }},
      {"skip", [](Fault& fault, std::string_view name, std::string_view value) { fault.skip = parse_count(name, value, 0); }},
      {"outage",
       [](Fault& fault, std::string_view name, std::string_view value) {
         const std::size_t plus = value.find('+');
         if (plus == std::string_view::npos) refuse_setting(name, value, "START+DURATION in seconds");
         fault.outage = Outage{parse_seconds(name, value.substr(0, plus), value), parse_seconds(name, value.substr(plus + 1), value)};
       }},
      {"retryable",
       [](Fault& fault, std::string_view name, std::string_view value) {
         if (value != "true" && value != "false") refuse_setting(name, value, "true or false");
         fault.words = fault.words.with("retryable", Value(value == "true"));
       }},
      {"error", set_word},
      {"error-code", set_word},
      {"dependency", set_word},
      {"recovery", set_word},
      {"reason", set_word},
  };
  return settings;
}

/// Settings that stand alone.
const std::map<std::string_view, bool Fault::*>& plain_settings() {
  static const auto& settings = *new std::map<std::string_view, bool Fault::*>{
      {"reset", &Fault::reset},
      {"wrong-bytes", &Fault::wrong_bytes},
      {"no-range", &Fault::ignore_range},
      {"refuse", &Fault::refuse},
  };
  return settings;
}

void apply_setting(Fault& fault, std::string_view setting) {
  const std::size_t equals = setting.find('=');
  const std::string_view name = setting.substr(0, equals);
  const auto valued = valued_settings().find(name);
  const auto plain = plain_settings().find(name);
  if (valued == valued_settings().end() && plain == plain_settings().end()) {
    throw ValueError(fmt::format("there is no setting {}", to_quoted(name)));
  }
  if (plain != plain_settings().end()) {
    if (equals != std::string_view::npos) throw ValueError(fmt::format("{} takes no value", name));
    fault.*(plain->second) = true;
    return;
  }
  if (equals == std::string_view::npos) throw ValueError(fmt::format("{} needs a value", name));
  valued->second(fault, name, setting.substr(equals + 1));
}

void complete(Fault& fault) {
  const bool acts = fault.status || fault.delay_seconds > 0 || fault.reset || fault.ignore_range || fault.refuse || fault.bends_body();
  if (!fault.words.empty() && !fault.status) fault.status = 503;
  if (!acts && fault.outage && !fault.status) fault.status = 503;
  if (!acts && !fault.status) throw ValueError("nothing is to happen");
  if (!fault.refuse) return;
  if (fault.pattern != "*") throw ValueError("refuse closes the whole port, so its pattern must be *");
  if (fault.times || fault.skip > 0) throw ValueError("refuse sees no requests, so it cannot count them; use outage");
}

}  // namespace

bool Fault::matches(std::string_view path) const { return ::fnmatch(pattern.c_str(), std::string(path).c_str(), 0) == 0; }

Fault parse_fault(std::string_view text) {
  const std::string_view stripped = strip(text);
  try {
    const std::size_t colon = stripped.find(':');
    if (colon == std::string_view::npos) throw ValueError("a fault is PATTERN:SETTING[,SETTING...]");
    Fault fault;
    fault.text = stripped;
    fault.pattern = stripped.substr(0, colon);
    if (!fault.pattern.starts_with('/') && !fault.pattern.starts_with('*')) throw ValueError("a pattern starts with / or *");
    for (const std::string_view setting : split(stripped.substr(colon + 1), ",")) apply_setting(fault, setting);
    complete(fault);
    return fault;
  } catch (const Error& error) {
    throw ValueError(fmt::format("bad fault {}: {}", to_quoted(stripped), error.text()));
  }
}

std::vector<Fault> parse_fault_lines(std::string_view lines) {
  std::vector<Fault> faults;
  std::size_t number = 0;
  for (const std::string_view line : split(lines, "\n")) {
    ++number;
    const std::string_view stripped = strip(line);
    if (stripped.empty() || stripped.starts_with('#')) continue;
    try {
      faults.push_back(parse_fault(stripped));
    } catch (const Error& error) {
      throw ValueError(fmt::format("line {}: {}", number, error.text()));
    }
  }
  return faults;
}

FaultTable::FaultTable(std::vector<Fault> faults, std::string file) : file_(std::move(file)), given_(faults.size()) {
  for (Fault& fault : faults) rules_.push_back({std::make_shared<const Fault>(std::move(fault))});
  version_ = file_version();
  if (version_.inode == 0) return;
  const MutexLock lock(mutex_);
  replace_file_rules(parse_fault_lines(read_file(file_)));
}

std::shared_ptr<const Fault> FaultTable::decide(std::string_view path) {
  const MutexLock lock(mutex_);
  refresh();
  for (Rule& rule : rules_) {
    const Fault& fault = *rule.fault;
    if (fault.refuse || !fault.matches(path)) continue;
    if (fault.outage && !fault.outage->holds_at(elapsed_seconds())) continue;
    const std::int64_t position = rule.seen++;
    if (position < fault.skip) continue;
    if (fault.times && position >= fault.skip + *fault.times) continue;
    return rule.fault;
  }
  return nullptr;
}

bool FaultTable::port_is_closed() {
  const MutexLock lock(mutex_);
  refresh();
  return std::any_of(rules_.begin(), rules_.end(), [this](const Rule& rule) {
    return rule.fault->refuse && (!rule.fault->outage || rule.fault->outage->holds_at(elapsed_seconds()));
  });
}

double FaultTable::elapsed_seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count(); }

FaultTable::FileVersion FaultTable::file_version() const {
  struct stat status {};
  if (file_.empty() || ::stat(file_.c_str(), &status) != 0) return {};
  return {static_cast<std::int64_t>(status.st_ino), status.st_size, status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec};
}

/// A file that is bad or vanishes half-way leaves the faults as they were, with a word to the operator.
void FaultTable::refresh() {
  const FileVersion version = file_version();
  if (version == version_) return;
  version_ = version;
  try {
    replace_file_rules(version.inode == 0 ? std::vector<Fault>{} : parse_fault_lines(read_file(file_)));
  } catch (const Error& error) {
    say(stderr, fmt::format("{}: {}; the earlier faults stay in force", file_, error.text()));
  }
}

/// A fault that stays in the file as it was goes on counting.
void FaultTable::replace_file_rules(std::vector<Fault> faults) {
  std::vector<Rule> former(rules_.begin() + static_cast<std::ptrdiff_t>(given_), rules_.end());
  rules_.resize(given_);
  for (Fault& fault : faults) {
    const auto same = std::find_if(former.begin(), former.end(), [&](const Rule& rule) { return rule.fault->text == fault.text; });
    const std::int64_t seen = same == former.end() ? 0 : same->seen;
    if (same != former.end()) former.erase(same);
    rules_.push_back({std::make_shared<const Fault>(std::move(fault)), seen});
  }
}

}  // namespace brackenfen::sync::distribution
