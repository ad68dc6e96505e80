// What a host sees of a manager and of its directory: snapshots, made when they are asked for.
#include <algorithm>
#include <iterator>

#include "python/bindings/bind_manager.hpp"
#include "python/conversion/dataclasses.hpp"
#include "sync/lifecycle/lock_holder.hpp"

namespace brackenfen::sync::python {
namespace {

using Bound = nb::class_<ManagerObject>;

/// The dataclass of that name.
nb::object record(const char* name);

nb::object pid_of(const LockHolder& holder) { return holder.pid ? nb::object(nb::int_(*holder.pid)) : nb::none(); }
nb::object command_of(const LockHolder& holder) { return holder.command ? path_to_python(*holder.command) : nb::none(); }

nb::object wait_to_python(const std::optional<WaitUnderWay>& wait) {
  if (!wait) return nb::none();
  if (const auto* server = std::get_if<ServerWait>(&*wait)) {
    return record("Wait")(to_python(server->endpoint), server->attempt, to_python(server->reason), server->since, server->next_try_at);
  }
  const auto& lock = std::get<LockWait>(*wait);
  const LockHolder holder =
      detached([&] { return lock.locked_file ? find_lock_holder(*lock.locked_file) : std::nullopt; }).value_or(LockHolder());
  return record("LockWait")(lock.since, pid_of(holder), command_of(holder));
}

// The core's snapshots take no longer than a copy, so both keep the interpreter lock, which others may hold for long.

nb::object progress(const ManagerObject& self) {
  const std::optional<Progress> now = self.core->progress();
  if (!now) return nb::none();
  nb::list in_flight;
  for (const FileInFlight& file : now->files_in_flight)
    in_flight.append(record("FileInFlight")(to_python(file.relative_path), file.bytes_done, file.bytes_total));
  return record("Progress")(to_python(now->operation), to_python(now->phase), now->files_done, now->files_total, now->bytes_done,
                            now->bytes_total, now->bytes_per_second, nb::steal(PyList_AsTuple(in_flight.ptr())), now->started_at,
                            wait_to_python(now->wait));
}

nb::object health(const ManagerObject& self) {
  const Health now = self.core->health();
  const Standing& standing = now.standing;
  return record("Health")(now.running, now.in_transition, to_python(now.era_number), to_python(now.version),
                          to_python(standing.last_good_at), to_python(now.last_good_age_s), to_python(standing.last_error),
                          to_python(standing.last_error_at), wait_to_python(standing.waiting_for), now.consumers,
                          tuple_of_texts(standing.threads));
}

nb::object plan(const ManagerObject& self) {
  const SyncPlan made = self.run([](SyncManager& core) { return core.plan(); });
  nb::dict fetch;
  for (const SyncPlan::File& file : made.fetch) fetch[to_python(file.relative_path)] = file.size_bytes;
  return record("SyncPlan")(to_python(made.era_number), to_python(made.version), made.is_transition, fetch, made.fetch_bytes,
                            tuple_of_texts(made.keep), nb::steal(PyList_AsTuple(list_of_paths(made.remove).ptr())), made.free_bytes,
                            made.fits());
}

/// `records` holds what the types of the fields refer to.
void add(nb::dict& records, const char* name, const std::vector<DataclassField>& fields, const char* documentation) {
  records[name] = make_dataclass(records, name, fields, documentation, Mutability::Frozen);
}

void add_waits(nb::dict& records) {
  add(records, "Wait", {{"endpoint", "str"}, {"attempt", "int"}, {"reason", "str"}, {"since", "float"}, {"next_try_at", "float"}},
      "A wait for the server, from the first failure to the answer.\n\n"
      "endpoint: the URL's path. attempt: failures so far. reason: of the last one, as the events have it: \"http_503\",\n"
      "\"ConnectionRefusedError\", \"partial_transfer\", ... since, next_try_at: seconds since the epoch; a next_try_at\n"
      "that has passed means that a try is under way.");
  add(records, "LockWait", {{"since", "float"}, {"pid", "int | None"}, {"command", "str | None"}},
      "A wait for another process that works on the directory.\n\n"
      "since: seconds since the epoch. pid, command: of that process, None where the system's lock table does\n"
      "not tell, or the process may not be looked at.");
}

void add_progress(nb::dict& records) {
  add(records, "FileInFlight", {{"relative_path", "str"}, {"bytes_done", "int"}, {"bytes_total", "int"}},
      "A file that is being downloaded.\n\n"
      "bytes_done: how much of it is here, resumed bytes included. bytes_total: its size, or bytes_done where the\n"
      "manifest states none.");
  add(records, "Progress",
      {{"operation", "str"},
       {"phase", "str"},
       {"files_done", "int"},
       {"files_total", "int"},
       {"bytes_done", "int"},
       {"bytes_total", "int"},
       {"bytes_per_second", "float"},
       {"files_in_flight", "tuple[FileInFlight, ...]"},
       {"started_at", "float"},
       {"wait", "Wait | LockWait | None"}},
      "An operation at one moment.\n\n"
      "operation: \"sync\", \"repair\", \"transition\", \"features\", \"verify\", \"plan\" or \"download\"; the outermost one.\n"
      "phase: \"waiting\" (for its turn at the directory), \"manifest\", \"comparing\", \"downloading\", \"documents\",\n"
      "\"committing\", \"promoting\" or \"verifying\". files_*, bytes_*: of the set that is fetched or read, 0 before it is\n"
      "known; done is never more than total. bytes_per_second: over the network, of about the last five seconds.\n"
      "started_at: seconds since the epoch. wait: what it waits for, or None.");
}

void add_health(nb::dict& records) {
  add(records, "Health",
      {{"running", "bool"},
       {"in_transition", "bool"},
       {"era_number", "int | None"},
       {"version", "int | None"},
       {"last_good_pass_at", "float | None"},
       {"last_good_pass_age_s", "float | None"},
       {"last_error", "str | None"},
       {"last_error_at", "float | None"},
       {"waiting_for", "Wait | LockWait | None"},
       {"consumers", "int"},
       {"threads", "tuple[str, ...]"}},
      "How a manager is.\n\n"
      "running: between start or acquire and the stop. era_number, version: of the last commit, None before.\n"
      "last_good_pass_at: when the directory was last known to be what the server publishes, by a pass, a transition or\n"
      "a poll that found nothing to do, in seconds since the epoch; None before the first of this process.\n"
      "last_error: class and text of the last operation that failed; None once it went well again. waiting_for: what any\n"
      "thread waits for, the longest wait of them, or None. threads: names of those that work in the background.");
  add(records, "LockHolder", {{"pid", "int | None"}, {"command", "str | None"}},
      "A process that works on a directory.\n\n"
      "pid: None where the system's lock table does not tell, as for one in another container. command: its command line,\n"
      "at most 4 KiB of it, None where it may not be looked at.");
}

void add_plan(nb::dict& records) {
  add(records, "SyncPlan",
      {{"era_number", "int"},
       {"version", "int"},
       {"is_transition", "bool"},
       {"fetch", "dict[str, int]"},
       {"fetch_bytes", "int"},
       {"keep", "tuple[str, ...]"},
       {"remove", "tuple[str, ...]"},
       {"free_bytes", "int"},
       {"fits", "bool"}},
      "What a sync would do, or the transition where the server is in another era.\n\n"
      "era_number, version: of the server's manifest. fetch: relative paths with their sizes. keep: files that stay although\n"
      "the manifest of the same era states other bytes; the sync after fetches them. remove: relative paths. fits: whether\n"
      "fetch_bytes are free.");
}

nb::dict make_records() {
  nb::dict records;
  add_waits(records);  // which the next two refer to
  add_progress(records);
  add_health(records);
  add_plan(records);
  return records;
}

/// By name, owned for ever. Made when one is first wanted, since making them takes as long as a fifth of the import. Others may
/// run meanwhile: what was made first counts.
const nb::dict& records() {
  static nb::dict* made = nullptr;
  if (made == nullptr) {
    auto fresh = std::make_unique<nb::dict>(make_records());
    if (made == nullptr) made = fresh.release();
  }
  return *made;
}

nb::object record(const char* name) { return records()[name]; }

}  // namespace

nb::object observation_record(const std::string& name) {
  const bool is_one = std::ranges::find(OBSERVATION_RECORDS, name) != std::end(OBSERVATION_RECORDS);
  return is_one ? record(name.c_str()) : nb::object();
}

void bind_lock_holder(nb::module_& module) {
  module.def(
      "lock_holder",
      [](nb::handle data_dir) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const std::optional<LockHolder> holder = detached([&] { return lock_holder(directory); });
        return holder ? record("LockHolder")(pid_of(*holder), command_of(*holder)) : nb::none();
      },
      any("data_dir"), nb::sig("def lock_holder(data_dir: str | os.PathLike[str]) -> LockHolder | None"),
      "The process that works on a directory at this moment, this one included; None for nobody.");
}

void bind_manager_observation(Bound& bound) {
  bound
      .def("progress", progress, nb::sig("def progress(self) -> Progress | None"),
           "What runs now, or None.\n\n"
           "Cheap enough for ten calls a second; never waits for the work. The operation that began first, of those that wait\n"
           "for no other. A poll that only looks whether there is something to do counts as nothing.")
      .def("health", health, nb::sig("def health(self) -> Health"),
           "How the manager is, always and at once: asks neither the server nor the files.")
      .def("plan", plan, nb::sig("def plan(self) -> SyncPlan"),
           "What a sync would do now, or the transition where the server is in another era.\n\n"
           "Asks the server for its manifest, reads files that the hash cache does not know, and changes nothing on disk. Waits\n"
           "for a sync of this process. Raises what sync() raises before it downloads, DiskSpaceError where the disk is too\n"
           "small for any selection included; whether what is to be fetched fits is `fits`.")
      .def_prop_rw(
          "stop_ends_waits", [](const ManagerObject& self) { return self.core->stop_ends_waits(); },
          [](const ManagerObject& self, nb::handle value) { self.core->set_stop_ends_waits(truth(value)); }, nb::for_setter(any("value")),
          nb::for_getter(nb::sig("def stop_ends_waits(self) -> bool")),
          "Whether stop() and the last release() end the waits for a server that is away, and with them what the background\n"
          "threads were doing. False by default: they wait until the server answers. A sync of the host's own threads is not\n"
          "touched; its back-off context has a stop_requested.");
}

}  // namespace brackenfen::sync::python
