// The rotation of features as SyncManager offers it.
#include "python/adapters/neighbours_rotation.hpp"
#include "python/adapters/search_consumers.hpp"
#include "python/bindings/bind_manager.hpp"
#include "python/conversion/rotation_records.hpp"
#include "sync/rotation/planning.hpp"

namespace brackenfen::sync::python {
namespace {

std::shared_ptr<NeighbourSet> neighbours() { return host_neighbours().bind(); }

nb::object settings_for_manifest(const ManagerObject& self, nb::handle manifest, nb::handle free_disk_bytes) {
  const std::shared_ptr<Manifest> record = manifest_argument(manifest);
  const std::int64_t free_bytes = integer_argument(free_disk_bytes, "free_disk_bytes");
  const SyncManager::RotationSettingsForManifest both =
      self.run([&](SyncManager& core) { return core._feature_rotation_settings_for_manifest(*neighbours(), *record, free_bytes); });
  return nb::make_tuple(loaded_settings_to_python(both.settings),
                        rotation_settings_to_python(both.rotation_settings, rotation_module().find()));
}

nb::object plan_for_manifest(const ManagerObject& self, nb::handle manifest, nb::handle free_disk_bytes, nb::handle force_new_candidate) {
  const std::shared_ptr<Manifest> record = manifest_argument(manifest);
  const std::int64_t free_bytes = integer_argument(free_disk_bytes, "free_disk_bytes");
  const bool force = truth(force_new_candidate);
  const SyncManager::PlannedRotation planned =
      self.run([&](SyncManager& core) { return core._plan_feature_rotation_for_manifest(*neighbours(), *record, free_bytes, force); });
  return nb::make_tuple(plan_to_python(planned.plan), planned.explicit_rotation_budget);
}

void precheck(const ManagerObject& self, nb::handle given, nb::handle free_disk_bytes, nb::handle enforce_default_cap) {
  RotationSelection selection;
  const nb::object mandatory_bytes = attribute_or_none(given, "mandatory_bytes");
  selection.mandatory_bytes = mandatory_bytes.is_none() ? Value(0) : value_argument(mandatory_bytes, "selection.mandatory_bytes");
  selection.feature_budget_bytes = value_argument(attribute_or_none(given, "feature_budget_bytes"), "selection.feature_budget_bytes");
  const std::int64_t free_bytes = integer_argument(free_disk_bytes, "free_disk_bytes");
  const bool cap = truth(enforce_default_cap);
  self.run([&](SyncManager& core) { core._precheck_rotation_disk_budget(*neighbours(), selection, free_bytes, cap); });
}

nb::object scoped_files_to_download(nb::handle manifest, nb::handle selection, nb::handle existing_relative_paths) {
  const std::vector<Text> existing = text_list_argument(or_empty(existing_relative_paths), "existing_relative_paths");
  TextSet existing_set;
  existing_set.insert(existing.begin(), existing.end());
  const Value files = files_of(manifest);
  const nb::object selected = required_attribute(selection, "selected_artifacts", "selection");
  return to_python(_rotation_scoped_files_to_download(files, artifacts_argument(selected, "selection.selected_artifacts"), existing_set));
}

void bind_planning(nb::class_<ManagerObject>& bound) {
  bound.def("_feature_rotation_settings_for_manifest", settings_for_manifest, any("manifest"), nb::kw_only(), any("free_disk_bytes"))
      .def(
          "_feature_rotation_should_rotate",
          [](const ManagerObject& self, nb::handle manifest) {
            const std::shared_ptr<Manifest> record = manifest_argument(manifest);
            return self.run([&](SyncManager& core) { return core._feature_rotation_should_rotate(*neighbours(), *record); });
          },
          any("manifest"))
      .def(
          "_feature_rotation_needs_sync_for_manifest",
          [](const ManagerObject& self, nb::handle manifest) {
            const std::shared_ptr<Manifest> record = manifest_argument(manifest);
            return self.run([&](SyncManager& core) { return core._feature_rotation_needs_sync_for_manifest(*neighbours(), *record); });
          },
          any("manifest"))
      .def("_plan_feature_rotation_for_manifest", plan_for_manifest, any("manifest"), nb::kw_only(), any("free_disk_bytes"),
           nb::arg("force_new_candidate").none() = true)
      .def_static("_rotation_scoped_files_to_download", scoped_files_to_download, any("manifest"), any("selection"), nb::kw_only(),
                  nb::arg("existing_relative_paths") = nb::none())
      .def("_precheck_rotation_disk_budget", precheck, any("selection"), nb::kw_only(), any("free_disk_bytes"),
           nb::arg("enforce_default_cap").none() = true);
}

nb::object promote(const ManagerObject& self, nb::handle candidate_state, nb::handle available_relative_paths) {
  const RotationStateRef candidate = rotation_state_argument(candidate_state, "candidate_state");
  const TextList available = text_list_argument(available_relative_paths, "available_relative_paths");
  return rotation_state_to_python(
      self.run([&](SyncManager& core) { return core._promote_rotation_candidate(*neighbours(), candidate, available); }));
}

nb::object complete_promotion(const ManagerObject& self, nb::handle candidate_state, nb::handle available_relative_paths,
                              nb::handle manifest) {
  const RotationStateRef candidate = rotation_state_or_none(candidate_state, "candidate_state");
  const TextList available = text_list_argument(available_relative_paths, "available_relative_paths");
  const std::shared_ptr<Manifest> record = manifest_argument(manifest);
  return rotation_state_to_python(
      self.run([&](SyncManager& core) { return core._complete_rotation_promotion(*neighbours(), candidate, available, record).state; }));
}

void bind_promotion(nb::class_<ManagerObject>& bound) {
  bound.def("_promote_rotation_candidate", promote, any("candidate_state"), nb::kw_only(), any("available_relative_paths"))
      .def(
          "_write_promoted_rotation_state",
          [](const ManagerObject& self, nb::handle promoted) {
            const RotationStateRef state = rotation_state_argument(promoted, "promoted");
            self.run([&](SyncManager& core) { core._write_promoted_rotation_state(*neighbours(), state); });
          },
          any("promoted"))
      .def(
          "_normalize_active_rotation_state_for_manifest",
          [](const ManagerObject& self, nb::handle manifest) {
            const std::shared_ptr<Manifest> record = manifest_argument(manifest);
            return rotation_state_to_python(
                self.run([&](SyncManager& core) { return core._normalize_active_rotation_state_for_manifest(*neighbours(), *record); }));
          },
          any("manifest"))
      .def(
          "_cleanup_inactive_rotation_artifacts",
          [](const ManagerObject& self, nb::handle manifest, nb::handle active_relative_paths) {
            const std::shared_ptr<Manifest> record = manifest_argument(manifest);
            const TextList active = text_list_argument(active_relative_paths, "active_relative_paths");
            self.run([&](SyncManager& core) { core._cleanup_inactive_rotation_artifacts(*neighbours(), *record, active); });
          },
          any("manifest"), any("active_relative_paths"))
      .def("_complete_rotation_promotion", complete_promotion, any("candidate_state"), nb::kw_only(), any("available_relative_paths"),
           any("manifest"))
      .def(
          "add_active_feature_paths",
          [](const ManagerObject& self, nb::handle relative_paths) {
            const std::vector<Text> paths = text_list_argument(relative_paths, "relative_paths");
            return tuple_of_texts(self.run([&](SyncManager& core) { return core.add_active_feature_paths(paths); }));
          },
          any("relative_paths"),
          nb::sig("def add_active_feature_paths(self, relative_paths: collections.abc.Iterable[str]) -> tuple[str, ...]"),
          "Add to the active paths of the rotation state on disk; returns all of them, or () where there is no state.\n\n"
          "The added paths stay active until the next rotation, also beside a pass that rotates already. Waits for passes of\n"
          "other threads and processes; a callback of a pass may call it. Raises FeatureRotationStateError and OSError.");
}

nb::object refresh_payloads(const ManagerObject& self, nb::handle state, nb::handle vocabulary, nb::handle manifest, nb::handle consumers) {
  const RotationStateRef given = rotation_state_argument(state, "rotation_state");
  const Value loaded = any_value(vocabulary, "vocabulary");
  const std::shared_ptr<Manifest> record = manifest.is_none() ? nullptr : manifest_argument(manifest);
  std::optional<std::vector<SearchConsumerRef>> searches;
  if (!consumers.is_none()) {
    searches.emplace();
    for (const nb::object& consumer : elements_of(consumers, "consumers")) searches->push_back(search_consumer(consumer));
  }
  nb::list payloads;
  for (const SearchRefreshPayload& payload :
       self.run([&](SyncManager& core) { return core._rotation_search_refresh_payloads(*neighbours(), given, loaded, record, searches); }))
    payloads.append(refresh_payload_to_python(payload));
  return checked(PyList_AsTuple(payloads.ptr()));
}

void refresh_running_searches(const ManagerObject& self, nb::handle state, nb::handle vocabulary, nb::handle manifest) {
  const RotationStateRef given = rotation_state_argument(state, "rotation_state");
  const Value loaded = any_value(vocabulary, "vocabulary");
  const std::shared_ptr<Manifest> record = manifest.is_none() ? nullptr : manifest_argument(manifest);
  self.run([&](SyncManager& core) { core.refresh_running_searches_for_rotation(given, loaded, record); });
}

void bind_searches(nb::class_<ManagerObject>& bound) {
  bound
      .def(
          "register_rotation_search_consumer",
          [](const ManagerObject& self, nb::handle consumer) { self.core->register_rotation_search_consumer(search_consumer(consumer)); },
          any("consumer"), nb::sig("def register_rotation_search_consumer(self, consumer: object) -> None"),
          "Tell a running search of every change of its scope, until it is unregistered.\n\n"
          "consumer: any object. Its `refresh_rotation_scope(rotation_state, scoped_vocabulary)` is called on the syncing thread\n"
          "and must not sync itself; what it raises ends the pass, whose state is kept. It declares its universe by the first\n"
          "usable of `named_universe`, `_named_universe`, `universe`, `_universe`. It is kept alive.")
      .def(
          "unregister_rotation_search_consumer",
          [](const ManagerObject& self, nb::handle consumer) {
            self.core->unregister_rotation_search_consumer(*search_consumer(consumer));
          },
          any("consumer"), nb::sig("def unregister_rotation_search_consumer(self, consumer: object) -> None"),
          "Forget a search; one that is not registered is ignored.")
      .def("_rotation_search_consumer_snapshot",
           [](const ManagerObject& self) {
             nb::list consumers;
             for (const SearchConsumerRef& consumer : self.core->_rotation_search_consumer_snapshot())
               consumers.append(host_object_or_none(consumer));
             return consumers;
           })
      .def_static(
          "_rotation_consumer_named_universe",
          [](nb::handle consumer) { return to_python(_rotation_consumer_named_universe(*search_consumer(consumer))); }, any("consumer"))
      .def_static(
          "_rotation_vocabulary_for_consumer",
          [](nb::handle vocabulary, nb::handle consumer) {
            Origins origins;
            const Value loaded = any_value(vocabulary, "vocabulary", &origins);
            return to_python(_rotation_vocabulary_for_consumer(neighbours()->artifact_rotation(), loaded, *search_consumer(consumer)),
                             &origins);
          },
          any("vocabulary"), any("consumer"))
      .def("_rotation_search_refresh_payloads", refresh_payloads, any("rotation_state"), any("vocabulary"), nb::kw_only(),
           nb::arg("manifest") = nb::none(), nb::arg("consumers") = nb::none())
      .def_static(
          "_deliver_rotation_search_refresh_payloads",
          [](nb::handle payloads) {
            for (const nb::object& payload : elements_of(payloads, "refresh_payloads")) {
              const std::vector<nb::object> triple = elements_of(payload, "refresh_payloads[...]");
              if (triple.size() != 3) refuse("refresh_payloads[...]", "a triple", payload);
              triple[0](triple[1], triple[2]);
            }
          },
          any("refresh_payloads"))
      .def("refresh_running_searches_for_rotation", refresh_running_searches, any("rotation_state"), any("vocabulary"),
           nb::arg("manifest") = nb::none(),
           nb::sig("def refresh_running_searches_for_rotation(self, rotation_state: object, vocabulary: collections.abc.Mapping[str, "
                   "object], manifest: object | None = None) -> None"),
           "Tell the registered searches a rotation state and what it leaves of their vocabularies, now.\n\n"
           "vocabulary: one vocabulary document, or documents by universe. manifest: None for the manager's own.\n"
           "Raises VocabularyScopeError before any search is told, and what the first failing search raises.");
}

}  // namespace

void bind_manager_rotation(nb::class_<ManagerObject>& bound) {
  bind_planning(bound);
  bind_promotion(bound);
  bind_searches(bound);
}

}  // namespace brackenfen::sync::python
