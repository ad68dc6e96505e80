// Features on demand as SyncManager offers them.
#include "python/bindings/bind_manager.hpp"
#include "sync/rotation/prefetched_features.hpp"

namespace brackenfen::sync::python {
namespace {

std::shared_ptr<NeighbourSet> neighbours() { return host_neighbours().bind(); }

template <auto Request>
nb::object request_files(const ManagerObject& self, nb::handle feature_names, nb::handle expression_type, nb::handle named_universe) {
  const std::vector<Value> names = texts_or_nulls_argument(or_empty(feature_names), "feature_names");
  const Value type = expression_type_argument(expression_type);
  const Value universe = text_or_null(named_universe);
  return list_of_paths(self.run([&](SyncManager& core) { return (core.*Request)(names, type, universe); }));
}

nb::object request_files_impl(const ManagerObject& self, nb::handle feature_names, nb::handle expression_type, nb::handle named_universe) {
  const std::vector<std::string> names = texts_argument(feature_names, "feature_names");
  const Value type = expression_type_argument(expression_type);
  const Value universe = text_or_null(named_universe);
  return list_of_paths(self.run([&](SyncManager& core) { return core._request_feature_files_for_sync_impl(names, type, universe); }));
}

void bind_requests(nb::class_<ManagerObject>& bound) {
  bound
      .def("request_feature_files_for_sync", request_files<&SyncManager::request_feature_files_for_sync>, any("feature_names"),
           nb::kw_only(), nb::arg("expression_type").none() = "SIGNAL", nb::arg("named_universe") = nb::none(),
           nb::sig("def request_feature_files_for_sync(self, feature_names: collections.abc.Iterable[object] | None, *, expression_type: "
                   "object = 'SIGNAL', named_universe: str | None = None) -> list[str]"),
           "Ensure manifest feature arrow files exist locally for parent dispatch.\n\n"
           "Fetches the named features and their companions, whatever the rotation selects, and keeps them until the era ends.\n"
           "Returns the local paths of all that the names resolve to; a name that the manifest lacks gives none.\n"
           "expression_type: a text or an enumeration member; one with \"strategy\" in it means the strategy epoch.\n"
           "Raises StateError in an era transition and where the manager does not run, DiskSpaceError, and what sync raises.")
      .def("fetch_features", request_files<&SyncManager::fetch_features>, any("feature_names"), nb::kw_only(),
           nb::arg("expression_type").none() = "SIGNAL", nb::arg("named_universe") = nb::none(),
           nb::sig("def fetch_features(self, feature_names: collections.abc.Iterable[object] | None, *, expression_type: "
                   "object = 'SIGNAL', named_universe: str | None = None) -> list[str]"),
           "The same as request_feature_files_for_sync, whether the manager runs or not: waits for its turn at the directory,\n"
           "also while an era transition runs.")
      .def("_request_feature_files_for_sync_impl", request_files_impl, any("feature_names"), nb::kw_only(),
           nb::arg("expression_type").none() = "SIGNAL", nb::arg("named_universe") = nb::none());
}

}  // namespace

void bind_manager_on_demand(nb::class_<ManagerObject>& bound) {
  bind_requests(bound);
  bound
      .def(
          "_remember_prefetched_feature_relative_paths",
          [](const ManagerObject& self, nb::handle manifest, nb::handle relative_paths) {
            const std::shared_ptr<Manifest> record = manifest_argument(manifest);
            const std::vector<Value> paths = texts_or_nulls_argument(or_empty(relative_paths), "relative_paths");
            self.run([&](SyncManager& core) {
              core.prefetched_features()._remember_prefetched_feature_relative_paths(*neighbours(), *record, paths);
            });
          },
          any("manifest"), any("relative_paths"))
      .def(
          "_prefetched_feature_keep_paths",
          [](const ManagerObject& self, nb::handle manifest) {
            const std::shared_ptr<Manifest> record = manifest_argument(manifest);
            return tuple_of_texts(self.run(
                [&](SyncManager& core) { return core.prefetched_features()._prefetched_feature_keep_paths(*neighbours(), *record); }));
          },
          any("manifest"))
      .def(
          "_read_prefetched_feature_relative_paths",
          [](const ManagerObject& self, nb::handle manifest) {
            const std::shared_ptr<Manifest> record = manifest_argument(manifest);
            return set_of_texts(self.run([&](SyncManager& core) {
              return core.prefetched_features()._read_prefetched_feature_relative_paths(*neighbours(), *record);
            }));
          },
          any("manifest"))
      .def(
          "_write_prefetched_feature_relative_paths",
          [](const ManagerObject& self, nb::handle era_number, nb::handle relative_paths) {
            const Value era = value_argument(era_number, "era_number");
            const std::set<std::string> paths = text_set_argument(relative_paths, "relative_paths");
            self.run([&](SyncManager& core) { core.prefetched_features()._write_prefetched_feature_relative_paths(era, paths); });
          },
          any("era_number"), any("relative_paths"));
}

}  // namespace brackenfen::sync::python
