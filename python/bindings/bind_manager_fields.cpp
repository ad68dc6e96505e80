// The fields of SyncManager that a host may read and assign. Each is converted at the access; a list or dict
// that comes out is a copy.
#include "python/adapters/callables.hpp"
#include "python/bindings/bind_manager.hpp"
#include "python/conversion/rotation_records.hpp"

namespace brackenfen::sync::python {
namespace {

using Bound = nb::class_<ManagerObject>;

template <typename Get, typename Set>
void add(Bound& bound, const char* name, Get get, Set set) {
  bound.def_prop_rw(
      name, [get](const ManagerObject& self) { return get(*self.core); },
      [set, name](const ManagerObject& self, nb::handle value) { set(*self.core, value, name); }, nb::for_setter(any("value")));
}

template <auto MEMBER>
void add_path(Bound& bound, const char* name) {
  add(
      bound, name, [](SyncManager& core) { return path_to_python((core.*MEMBER).get()); },
      [](SyncManager& core, nb::handle value, const char* label) { (core.*MEMBER).set(path_argument(value, label)); });
}

template <auto MEMBER>
void add_flag(Bound& bound, const char* name) {
  add(
      bound, name, [](SyncManager& core) { return to_python((core.*MEMBER).load()); },
      [](SyncManager& core, nb::handle value, const char*) { (core.*MEMBER).store(truth(value)); });
}

template <auto MEMBER, auto ADAPT>
void add_host_object(Bound& bound, const char* name) {
  add(
      bound, name, [](SyncManager& core) { return host_object_or_none((core.*MEMBER).get()); },
      [](SyncManager& core, nb::handle value, const char*) { (core.*MEMBER).set(ADAPT(value)); });
}

void add_plain(Bound& bound) {
  add_path<&SyncManager::_data_dir>(bound, "_data_dir");
  add_path<&SyncManager::_consumer_count_path>(bound, "_consumer_count_path");
  add_path<&SyncManager::_flock_path>(bound, "_flock_path");
  add_flag<&SyncManager::_running>(bound, "_running");
  add_flag<&SyncManager::_consumer_lifecycle_started>(bound, "_consumer_lifecycle_started");
  add_flag<&SyncManager::_in_transition>(bound, "_in_transition");
  add(
      bound, "_server_url", [](SyncManager& core) { return to_python(core._server_url.get()); },
      [](SyncManager& core, nb::handle value, const char* name) { core._server_url.set(text_argument(value, name)); });
  add(
      bound, "_poll_interval", [](SyncManager& core) { return to_python(core._poll_interval.get()); },
      [](SyncManager& core, nb::handle value, const char* name) { core._poll_interval.set(real_argument(value, name)); });
  add(
      bound, "_consumer_count", [](SyncManager& core) { return to_python(core._consumer_count.load()); },
      [](SyncManager& core, nb::handle value, const char* name) { core._consumer_count.store(integer_argument(value, name)); });
}

void add_host_objects(Bound& bound) {
  add_host_object<&SyncManager::_get_token, token_source>(bound, "_get_token");
  add_host_object<&SyncManager::runtime_freshness_guard, freshness_guard>(bound, "runtime_freshness_guard");
  add(
      bound, "_active_rotation_state", [](SyncManager& core) { return rotation_state_to_python(core._active_rotation_state.get()); },
      [](SyncManager& core, nb::handle value, const char*) { core._active_rotation_state.set(rotation_state(value)); });
}

void add_documents(Bound& bound) {
  add(
      bound, "_manifest", [](SyncManager& core) { return manifest_to_python(core._manifest.get()); },
      [](SyncManager& core, nb::handle value, const char*) { core._manifest.set(value.is_none() ? nullptr : manifest_argument(value)); });
  add(
      bound, "_vocabulary",
      [](SyncManager& core) {
        const auto vocabulary = core._vocabulary.get();
        return vocabulary ? to_python(*vocabulary) : nb::none();
      },
      [](SyncManager& core, nb::handle value, const char* name) {
        core._vocabulary.set(value.is_none() ? nullptr : std::make_shared<const Document>(document_argument(value, name)));
      });
  add(
      bound, "_status_message", [](SyncManager& core) { return to_python(core.status()); },
      [](SyncManager& core, nb::handle value, const char* name) {
        core._status_message.set(value.is_none() ? nullptr : std::make_shared<const Value>(value_argument(value, name)));
      });
  add(
      bound, "_hash_cache", [](SyncManager& core) { return to_python(core.hash_cache().entries()); },
      [](SyncManager& core, nb::handle value, const char* name) { core.hash_cache().set_entries(document_argument(value, name)); });
  add(
      bound, "_hash_cache_dirty", [](SyncManager& core) { return to_python(core.hash_cache().dirty()); },
      [](SyncManager& core, nb::handle value, const char*) { core.hash_cache().set_dirty(truth(value)); });
  add(
      bound, "_hash_cache_path", [](SyncManager& core) { return path_to_python(core.hash_cache().path()); },
      [](SyncManager& core, nb::handle value, const char* name) { core.hash_cache().set_path(path_argument(value, name)); });
}

void add_collections(Bound& bound) {
  add(
      bound, "_missing_found_pnl_paths", [](SyncManager& core) { return set_of_texts(core._missing_found_pnl.paths()); },
      [](SyncManager& core, nb::handle value, const char* name) { core._missing_found_pnl.set_paths(text_set_argument(value, name)); });
  add(
      bound, "_missing_found_pnl_manifest_version", [](SyncManager& core) { return to_python(core._missing_found_pnl.version()); },
      [](SyncManager& core, nb::handle value, const char* name) { core._missing_found_pnl.set_version(value_argument(value, name)); });
  add(
      bound, "_prefetched_feature_era_id", [](SyncManager& core) { return to_python(core.prefetched_features().era_id()); },
      [](SyncManager& core, nb::handle value, const char* name) { core.prefetched_features().set_era_id(value_argument(value, name)); });
  add(
      bound, "_prefetched_feature_relative_paths",
      [](SyncManager& core) { return set_of_texts(core.prefetched_features().relative_paths()); },
      [](SyncManager& core, nb::handle value, const char* name) {
        core.prefetched_features().set_relative_paths(text_set_argument(value, name));
      });
  add(
      bound, "_repair_queue", [](SyncManager& core) { return nb::object(list_of_texts(core._repair_queue.get())); },
      [](SyncManager& core, nb::handle value, const char* name) { core._repair_queue.set(texts_argument(value, name)); });
}

}  // namespace

void bind_manager_fields(Bound& bound) {
  add_plain(bound);
  add_host_objects(bound);
  add_documents(bound);
  add_collections(bound);
  bound.def_prop_ro("_sync_thread", [](const ManagerObject& self) { return thread_to_python(self.core->_sync_thread.get()); })
      .def_prop_ro("_era_thread", [](const ManagerObject& self) { return era_thread_to_python(self.core->_era_thread.get()); })
      .def_prop_ro("_cleanup_thread", [](const ManagerObject& self) { return thread_to_python(self.core->_cleanup_thread()); });
}

}  // namespace brackenfen::sync::python
