// brackenfen-distribution: makes, fills, checks and serves distribution trees. This file reads the command line.
//
// Exit codes: 0 done, 1 it could not be done (standard error says why), 2 the command line is wrong. Ctrl-C and SIGTERM end it
// as they end any program.

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "tools/distribution/advance.hpp"
#include "tools/distribution/examine.hpp"
#include "tools/distribution/report.hpp"
#include "tools/distribution/sample.hpp"
#include "tools/distribution/say.hpp"
#include "tools/distribution/serve.hpp"
#include "tools/distribution/stop.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::int64_t MOST = 1'000'000'000'000'000;  // keeps sums of a few such numbers within 64 bits
constexpr double MOST_SECONDS = 1e9;                  // in nanoseconds, too

constexpr const char* PUBLISH_FOOTER =
    R"(The kind of a file follows from its path:
  features/...                                  feature
  found_signals/{...}/signal_is/pnl.arrow       found_signal_is_pnl
  found_strategies/{...}/strategy_is/pnl.arrow  found_strategy_is_epoch_pnl
  useful_signals/{...}/signal_os/pnl.arrow      useful_signal_os_pnl
  useful_signals/{...}/strategy_is/pnl.arrow    useful_signal_strategy_is_pnl
  named_universes/{universe}/vocabulary.json    vocabulary
  functions.json, signals_index.json            functions, signals_index
  {name}-{platform}.so or .pyd                  vault_module
  anything else                                 data
shuffle_seed.enc (60 bytes) becomes /data/shuffle; without one, a seed is made
from the era. Hidden files, *.tmp and a client's own files (manifest.json, ...)
are left out.

OUT gets data/manifest.json, data/manifest-version.json, data/files/...,
data/shuffle and era/current.json. Publishing again with a higher version, or a
later era, writes what changed, keeps what did not (going by the digests of
OUT's manifest), switches the documents, and drops departed files last. OUT may
be served meanwhile. A full disk or Ctrl-C leaves it as it was.

In the end it tells what is new against the version before and, as warnings,
what clients will stumble on (see `check`) and which changed files they keep
for one more pass.

Examples:
  brackenfen-distribution publish artifacts/ tree/ --era 12 --version 3
  brackenfen-distribution publish artifacts/ tree/ --era 12 --version 4 \
      --base-url https://cdn.example.com/era-12)";

constexpr const char* CHECK_FOOTER =
    R"(By the clients' own rules: documents that they would refuse, names that they
cannot take, files that are missing or not as large as the manifest states,
entries of the signals index without their artifacts. File contents are not
compared with the digests. Nothing is changed. The exit code is 1 where there
is something to tell.

Example:
  brackenfen-distribution check tree/)";

constexpr const char* SERVE_FOOTER =
    R"(A fault is PATTERN:SETTING[,SETTING...]. The pattern is matched against the
request path like a file name in a shell, and "*" crosses "/". The first fault
that applies decides a request; those of the file come last.
What happens:
  status=CODE       an error answer with a JSON body; its words: error-code=,
                    error=, dependency=, recovery=, reason=TEXT,
                    retryable=true|false (which imply status=503)
  delay=SECONDS     wait before answering
  drop-after=BYTES  close the connection after so many bytes of the body
  reset             reset instead of close; alone: before any answer
  drip=BYTES        send the body at so many bytes per second
  wrong-bytes       right size, wrong content
  no-range          ignore Range and send the whole file
  refuse            close the port; only with the pattern "*"
When:
  times=N, skip=N   only for the first N requests it would apply to; not for the
                    first N
  outage=START+DURATION
                    only in this window, in seconds since the start; alone it
                    answers 503
The fault file holds one fault a line (# starts a comment) and is read again
when it changes, at the latest with the next request. Replace it by renaming
another over it.

The log gets a line for each answer: STATUS PATH RANGE FAULT, with "-" for what
there is not and 0 for no answer.

Examples:
  brackenfen-distribution serve tree/ --port 8080
  brackenfen-distribution serve tree/ \
      --fault '/data/files/*:drop-after=100000,times=1'
  brackenfen-distribution serve tree/ --fault '*:outage=5+10' \
      --fault '*:refuse,outage=15+10')";

constexpr const char* SAMPLE_FOOTER =
    R"(One era: OUT becomes a distribution tree, ready to be served. Several:
OUT/era-{n} are trees, one for each era; from one to the next about one artifact
in twenty is replaced. The version counts up from 1 with the era. With --source,
folders of artifacts for `publish` are left in these places instead. The same
options give the same bytes on every machine. Sizes are spread evenly over their
logarithm.

Examples:
  brackenfen-distribution sample tree/ --files 300 --bytes 200MB --seed 7
  brackenfen-distribution sample eras/ --files 40 --bytes 2MB --eras 3 \
      --universes liquid_500,broad_2000)";

constexpr const char* ADVANCE_FOOTER =
    R"(Without --step: for each SRC in turn, the era stays active for a while, its
close is announced, it closes, a gap follows in which no era is open, and SRC is
published as the next era. With --step, one of these alone:
  announce          active, and closing after --announced seconds
  close             closing
  reopen            the close is called off: active again
  gap               between eras
  open              publish SRC as the next era
An era's number and version are one above those before it; PnL columns stay, and
the base URL where none is given. TREE may be served meanwhile, and is whole at
any moment.

Examples:
  brackenfen-distribution sample eras/ --source --files 40 --bytes 2MB --eras 3
  brackenfen-distribution publish eras/era-1 tree/ --era 1 --version 1
  brackenfen-distribution serve tree/ --port 8080 &
  brackenfen-distribution advance tree/ eras/era-2 eras/era-3 --active 30 \
      --closing 5 --gap 5
  brackenfen-distribution advance tree/ --step close)";

/// A whole number within limits, which the help does not spell out.
CLI::Validator whole_number(std::int64_t least = 0, std::int64_t most = MOST) { return CLI::Range(least, most).description(""); }

CLI::Validator number_of_seconds() {
  const auto objection = [](const std::string& text) {
    double number = 0;
    const bool is_one = CLI::detail::lexical_cast(text, number) && number >= 0 && number <= MOST_SECONDS;
    return is_one ? std::string() : fmt::format("'{}' is no number of seconds, 0 or more", text);
  };
  return CLI::Validator(objection, "");
}

/// Of a file or folder. An empty one, which is what an unset variable of a shell leaves, would mean the folder at hand.
CLI::Validator place() {
  return CLI::Validator([](const std::string& text) { return std::string(text.empty() ? "no name is given" : ""); }, "");
}

/// One of the names of a table, which an error spells out. `table` must outlive it.
template <typename T>
CLI::Validator name_of(const std::map<std::string, T>& table) {
  const auto objection = [&table](const std::string& text) {
    std::string names;
    for (const auto& [name, meaning] : table) names += (names.empty() ? "" : ", ") + name;
    return table.contains(text) ? std::string() : fmt::format("there is no '{}'; there are {}", text, names);
  };
  return CLI::Validator(objection, "");
}

/// Throws ValidationError for one that no client would ask.
std::string accepted_base_url(std::string_view given) {
  std::string url(strip(given));
  if (const auto objection = base_url_objection(url)) throw CLI::ValidationError("--base-url", "no client accepts it: " + *objection);
  return url;
}

void add_publish(CLI::App& app, PublishOptions& options) {
  CLI::App& command = *app.add_subcommand("publish", "Turn a folder of artifacts into a distribution tree");
  command.footer(PUBLISH_FOOTER);
  command.add_option("SRC", options.source, "The folder of artifacts")->required()->check(place())->type_name("");
  command.add_option("OUT", options.out, "The tree, new or to be brought up to date")->required()->check(place())->type_name("");
  command.add_option("--era", options.era, "The era of the data set")->required()->check(whole_number())->type_name("N");
  command.add_option("--version", options.version, "The version of the manifest")->required()->check(whole_number())->type_name("N");
  command.add_option("--base-url", options.base_url, "Where clients fetch data files, if not from\nthe server's /data/files")
      ->type_name("URL");
  command.add_option("--pnl-columns", options.pnl_column_count, "The manifest's pnl_column_count")->check(whole_number())->type_name("N");
  command.add_flag("--link", options.link, "Hard links instead of copies; SRC must then never\nbe written in place");
  command.add_flag_callback(
      "--no-check", [&options] { options.check_documents = false; }, "Publish documents even where they are wrong for\nthe era");
  command
      .add_option("--progress", options.progress_seconds, "Time between two lines on how far it is, where\nthere is no terminal; 0: none")
      ->check(number_of_seconds())
      ->type_name("SECONDS")
      ->capture_default_str();
  command.callback([&options] {
    options.base_url = accepted_base_url(options.base_url);
    print_report(publish(options));
    stop_point(Stage::Published);
  });
}

void add_check(CLI::App& app, std::string& tree) {
  CLI::App& command = *app.add_subcommand("check", "Tell what clients would stumble on in a tree");
  command.footer(CHECK_FOOTER);
  command.add_option("TREE", tree, "The distribution tree")->required()->check(place())->type_name("");
  command.callback([&tree] {
    const TreePaths paths{absolute_path(tree)};
    const PublishedManifest published = require_published_manifest(paths);
    const std::vector<std::string> warnings = examine(published.document, paths.files());
    print_warnings(warnings);
    const std::string what = fmt::format("era {} version {}: {} files", published.era, published.version, published.files.size());
    if (!warnings.empty()) throw RuntimeError(what + ", on which clients would stumble");
    say(stdout, what + ", nothing that clients would stumble on");
  });
}

struct ServeArguments {
  ServeOptions options;
  std::vector<std::string> faults;
};

void add_serve(CLI::App& app, ServeArguments& arguments) {
  CLI::App& command = *app.add_subcommand("serve", "Serve a distribution tree, well or badly");
  ServeOptions& options = arguments.options;
  command.footer(SERVE_FOOTER);
  command.add_option("OUT", options.tree, "The distribution tree")->required()->check(place())->type_name("");
  command.add_option("--host", options.host, "The address to serve at")->type_name("NAME")->capture_default_str();
  command.add_option("--port", options.port, "The port; 0 for any free one")->type_name("N")->capture_default_str();
  command.add_option("--token", options.token, "Require this bearer token")->type_name("TOKEN");
  command.add_option("--fault", arguments.faults, "Misbehave, see below; repeatable")->type_name("FAULT")->allow_extra_args(false);
  command.add_option("--fault-file", options.fault_file, "Faults that can be changed while serving")->type_name("FILE");
  command.add_option("--log", options.log_file, "Append a line for each answer to this file")->type_name("FILE");
  command.callback([&arguments] {
    for (const std::string& fault : arguments.faults) {
      try {
        arguments.options.faults.push_back(parse_fault(fault));
      } catch (const Error& error) {
        throw CLI::ValidationError("--fault", error.text());
      }
    }
    serve(arguments.options);
  });
}

void add_sample(CLI::App& app, SampleOptions& options) {
  CLI::App& command = *app.add_subcommand("sample", "Make up a data set");
  command.footer(SAMPLE_FOOTER);
  command.add_option("OUT", options.out, "A new or empty folder")->required()->check(place())->type_name("");
  command.add_option("--files", options.files, "Files in each era, documents included")
      ->check(whole_number(1, 10'000'000))
      ->type_name("N")
      ->capture_default_str();
  command.add_option("--bytes", options.bytes, "Their size together, about; 200MB and 1GiB are\nunderstood")
      ->transform(CLI::AsSizeValue(true).description(""))
      ->type_name("SIZE")
      ->capture_default_str();
  command.add_option("--seed", options.seed, "What everything made up follows from")->type_name("N")->capture_default_str();
  command.add_option("--era", options.first_era, "The first era")->check(whole_number())->type_name("N")->capture_default_str();
  command.add_option("--eras", options.eras, "How many eras")->check(whole_number(1, 1000))->type_name("N")->capture_default_str();
  command
      .add_option("--universes", options.universes, "Named universes, separated by commas; liquid_500\nand broad_2000 where none are given")
      ->type_name("NAMES")
      ->delimiter(',');
  command.add_flag("--source", options.source_only, "Leave folders of artifacts instead of trees");
  command.callback([&options] {
    const SampleReport report = make_sample(options);
    say(stdout, fmt::format("sample of {} files, {} bytes{}", report.files, report.bytes, report.folders.size() > 1 ? " in each era" : ""));
    for (const std::string& folder : report.folders) say(stdout, "  " + folder);
  });
}

void add_advance(CLI::App& app, AdvanceOptions& options) {
  static const std::map<std::string, EraStep> STEPS = {{"announce", EraStep::Announce},
                                                       {"close", EraStep::Close},
                                                       {"reopen", EraStep::Reopen},
                                                       {"gap", EraStep::Gap},
                                                       {"open", EraStep::Open}};
  static const std::map<std::string, EraShape> SHAPES = {{"flat", EraShape::Flat}, {"wrapped", EraShape::Wrapped}};
  CLI::App& command = *app.add_subcommand("advance", "Take a distribution tree from era to era");
  command.footer(ADVANCE_FOOTER);
  command.add_option("TREE", options.tree, "The distribution tree")->required()->check(place())->type_name("");
  command.add_option("SRC", options.sources, "Folders of artifacts, one for each era to open")->check(place())->type_name("");
  command.add_option("--step", options.step, "One step alone")
      ->transform(CLI::Transformer(STEPS).description(""))
      ->transform(name_of(STEPS))  // asked first
      ->type_name("STEP");
  const auto add_seconds = [&](const char* name, double& seconds, const char* description) {
    command.add_option(name, seconds, description)->check(number_of_seconds())->type_name("SECONDS")->capture_default_str();
  };
  add_seconds("--active", options.active_seconds, "How long an era stays active");
  add_seconds("--announced", options.announced_seconds, "How long before its end the close is\nannounced");
  add_seconds("--closing", options.closing_seconds, "How long it is closing");
  add_seconds("--gap", options.gap_seconds, "How long no era is open");
  command.add_option("--shape", options.shape, "How /era/current puts it: flat or wrapped")
      ->transform(CLI::Transformer(SHAPES).description(""))
      ->transform(name_of(SHAPES))
      ->type_name("SHAPE");
  command
      .add_option("--min-library-version", options.min_library_version,
                  "What clients must have at least; else it stays,\nand is 0.0.0 in a new era")
      ->type_name("V");
  command.add_option("--base-url", options.base_url, "Where clients fetch the next era's data files; else\nit stays")->type_name("URL");
  command.callback([&options] {
    if (options.base_url) options.base_url = accepted_base_url(*options.base_url);
    const std::size_t needed = options.step && options.step != EraStep::Open ? 0 : 1;
    if (options.sources.size() < needed) throw CLI::ValidationError("SRC", "a folder of artifacts is needed for the next era");
    if (options.step && options.sources.size() > needed) throw CLI::ValidationError("SRC", "more folders than this step can use");
    advance(options);
  });
}

/// Where there is no command to run, the parser only says that one is needed.
void tell_commands(CLI::App& app) {
  const std::vector<std::string> unknown = app.remaining();
  if (unknown.empty()) {
    say(stderr, "brackenfen-distribution: a command is needed");
  } else {
    const bool is_option = unknown.front().starts_with('-');
    say(stderr, fmt::format("brackenfen-distribution: there is no {} '{}'", is_option ? "option" : "command", unknown.front()));
  }
  std::string names;
  for (const CLI::App* command : app.get_subcommands({})) names += (names.empty() ? "" : ", ") + command->get_name();
  say(stderr, "The commands are " + names + ".");
  say(stderr, "Run with --help for more information.");
}

int run(int argument_count, char** arguments) {
  prepare_streams();
  CLI::App app("Makes, fills and serves distribution trees:\nwhat a data server publishes to its clients.", "brackenfen-distribution");
  app.require_subcommand(1);
  app.get_formatter()->column_width(26);
  PublishOptions publish_options;
  std::string checked_tree;
  ServeArguments serve_arguments;
  SampleOptions sample_options;
  AdvanceOptions advance_options;
  add_publish(app, publish_options);
  add_check(app, checked_tree);
  add_serve(app, serve_arguments);
  add_sample(app, sample_options);
  add_advance(app, advance_options);
  try {
    app.parse(argument_count, arguments);
  } catch (const CLI::ParseError& error) {
    const bool names_no_command = error.get_name() == "RequiredError" && app.get_subcommands().empty();
    if (!names_no_command) return app.exit(error) == 0 ? 0 : 2;
    tell_commands(app);
    return 2;
  } catch (const Error& error) {
    say(stderr, "brackenfen-distribution: " + error.text());
    return 1;
  } catch (const Stopped& stopped) {
    const char* const when = stopped.stage == Stage::Published ? "after all was" : "before anything was";
    say(stderr, fmt::format("brackenfen-distribution: stopped ({}) {} published", ::strsignal(stopped.signal), when));
    std::signal(stopped.signal, SIG_DFL);
    std::raise(stopped.signal);              // a shell script that runs the tool is to end too
  } catch (const std::exception& failure) {  // of the system: no thread, no memory
    say(stderr, std::string("brackenfen-distribution: ") + failure.what());
    return 1;
  }
  return 0;
}

}  // namespace

}  // namespace brackenfen::sync::distribution

int main(int argument_count, char** arguments) { return brackenfen::sync::distribution::run(argument_count, arguments); }
