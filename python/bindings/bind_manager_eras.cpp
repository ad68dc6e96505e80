// From era to era: the transition, its gates, and what removes old eras.
#include "python/adapters/callables.hpp"
#include "python/bindings/bind_manager.hpp"
#include "sync/era/era_current.hpp"

namespace brackenfen::sync::python {
namespace {

using Bound = nb::class_<ManagerObject>;

void trigger_era_transition(const ManagerObject& self, nb::handle new_era_id, nb::handle kill_searches_fn, nb::handle restart_searches_fn) {
  const Value era = value_argument(new_era_id, "new_era_id");
  const SearchesFn kill = searches_fn(callable_or_none(kill_searches_fn, "kill_searches_fn"));
  const SearchesFn restart = searches_fn(callable_or_none(restart_searches_fn, "restart_searches_fn"));
  self.run([&](SyncManager& core) { core.trigger_era_transition(era, kill, restart); });
}

nb::object fetch_active_era(const ManagerObject& self, nb::handle allow_closing) {
  const bool closing = truth(allow_closing);
  const SyncManager::ActiveEra active =
      self.run([&](SyncManager& core) { return core._fetch_active_era_for_transition(*host_neighbours().bind(), closing); });
  return nb::make_tuple(to_python(active.era_number), to_python(active.era_manifest));
}

nb::object confirm_active_era(const ManagerObject& self, nb::handle expected_era_id, nb::handle allow_closing) {
  const bool closing = truth(allow_closing);
  const Value era = value_argument(expected_era_id, "expected_era_id");
  return to_python(self.run([&](SyncManager& core) { return core._confirm_active_era(*host_neighbours().bind(), era, closing); }));
}

nb::object check_transition_superseded(const ManagerObject& self, nb::handle expected_era_id, nb::handle allow_closing) {
  const bool closing = truth(allow_closing);
  const Value era = value_argument(expected_era_id, "expected_era_id");
  return to_python(self.run([&](SyncManager& core) { return core._check_transition_superseded(*host_neighbours().bind(), era, closing); }));
}

nb::object parse_era_directory_id(nb::handle name) { return to_python(_parse_era_directory_id(text_argument(name, "name"))); }

nb::object normalize_era_current_response(nb::handle data) {
  const Value given = any_value(data, "data");
  const Document flat = _normalize_era_current_response(given);
  return given.is_document() && flat.same_as(*given.if_document()) ? nb::borrow(data) : to_python(flat);
}

}  // namespace

void bind_manager_eras(Bound& bound) {
  bound
      .def(
          "trigger_era_transition", trigger_era_transition, any("new_era_id"), nb::arg("kill_searches_fn") = nb::none(),
          nb::arg("restart_searches_fn") = nb::none(),
          nb::sig("def trigger_era_transition(self, new_era_id: int, kill_searches_fn: collections.abc.Callable[[], object] | None = None, "
                  "restart_searches_fn: collections.abc.Callable[[], object] | None = None) -> None"),
          "Handle era transition: kill, update, re-auth, sync, restart.\n\n"
          "Everything of the new era is fetched and validated beside the live files before one of them changes. An era that\n"
          "overtakes it is followed. Both callables are called without arguments, on this thread.\n"
          "Raises EraError where the server does not confirm the era, LibraryUpdateRequired where it needs a newer library,\n"
          "SyncError and its subclasses, OSError of the local files, and what the callables raise; searches then stay\n"
          "stopped. An outage of the server is waited out.")
      .def("_fetch_active_era_for_transition", fetch_active_era, nb::arg("allow_closing").none() = false)
      .def("_confirm_active_era", confirm_active_era, any("expected_era_id"), nb::arg("allow_closing").none() = false)
      .def("_check_transition_superseded", check_transition_superseded, any("expected_era_id"), nb::arg("allow_closing").none() = false)
      .def(
          "cleanup_old_eras",
          [](const ManagerObject& self, nb::handle keep_current) {
            const bool keep = truth(keep_current);
            return self.run([&](SyncManager& core) { return core.cleanup_old_eras(keep); });
          },
          nb::arg("keep_current").none() = true, nb::sig("def cleanup_old_eras(self, keep_current: bool = True) -> int"),
          "Delete non-current era directories, return bytes freed.\n\n"
          "keep_current=False removes all data: manifest.json, shuffle_seed.enc and every directory that is not hidden.\n"
          "Raises OSError at the first that cannot be removed.")
      .def(
          "_schedule_cleanup_old_eras",
          [](const ManagerObject& self, nb::handle keep_current) {
            const bool keep = truth(keep_current);
            self.run([&](SyncManager& core) { core._schedule_cleanup_old_eras(keep); });
          },
          any("keep_current"))
      .def(
          "_cleanup_old_eras_background",
          [](const ManagerObject& self, nb::handle keep_current) {
            const bool keep = truth(keep_current);
            self.run([&](SyncManager& core) { core._cleanup_old_eras_background(keep); });
          },
          any("keep_current"))
      .def_static("_parse_era_directory_id", parse_era_directory_id, any("name"));
}

void bind_eras(nb::module_& module) {
  module.def("_normalize_era_current_response", normalize_era_current_response, any("data"));
  module.def("_parse_era_directory_id", parse_era_directory_id, any("name"));
}

}  // namespace brackenfen::sync::python
