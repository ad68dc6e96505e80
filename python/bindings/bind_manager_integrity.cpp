#include "python/adapters/callables.hpp"
#include "python/bindings/bind_manager.hpp"

namespace brackenfen::sync::python {
namespace {

nb::object cache_stat_key(nb::handle local_path) {
  const std::string path = path_argument(local_path, "local_path");
  const FileStat stat = detached([&] { return brackenfen::sync::_cache_stat_key(*host_seams().files, path); });
  return nb::make_tuple(stat.size_bytes, stat.mtime_ns, stat.ctime_ns, stat.inode);
}

bool file_matches(const ManagerObject& self, nb::handle file_path, nb::handle local_path, nb::handle file_info, nb::handle cache_allowed) {
  const std::string relative = text_argument(file_path, "file_path");
  const std::string local = path_argument(local_path, "local_path");
  const Document info = document_argument(file_info, "file_info");
  const bool cached = truth(cache_allowed);
  return self.run([&](SyncManager& core) { return core._local_file_matches_manifest(relative, local, info, cached); });
}

bool files_complete(const ManagerObject& self, nb::handle manifest, nb::handle active_rotation_state) {
  const std::shared_ptr<Manifest> record = manifest_argument(manifest);
  const std::shared_ptr<const RotationState> state = rotation_state_or_none(active_rotation_state, "active_rotation_state");
  return self.run([&](SyncManager& core) { return core._local_manifest_files_complete(*host_neighbours().bind(), *record, state.get()); });
}

void bind_verify_and_repair(nb::class_<ManagerObject>& bound) {
  bound
      .def(
          "verify",
          [](const ManagerObject& self) { return verify_result_to_python(self.run([](SyncManager& core) { return core.verify(); })); },
          nb::sig("def verify(self) -> VerifyResult"),
          "Read every active local file and compare size and SHA-256 with the manifest.\n\n"
          "Always reads: the hash cache is not asked. Valid where there is no manifest yet. Makes no request and takes no\n"
          "lock. Raises OSError for a file that cannot be read, ManifestError for a path that the manifest must not hold.")
      .def(
          "repair",
          [](const ManagerObject& self, nb::handle corrupted_files) {
            const std::vector<std::string> paths = texts_argument(corrupted_files, "corrupted_files");
            return sync_result_to_python(self.run([&](SyncManager& core) { return core.repair(paths); }));
          },
          any("corrupted_files"), nb::sig("def repair(self, corrupted_files: collections.abc.Iterable[str]) -> SyncResult"),
          "Fetch the named files anew, by relative path; names that the manifest does not hold are ignored.\n\n"
          "Runs a full sync instead where the server has moved on meanwhile. Waits while another unit of work runs on the\n"
          "directory. Raises what sync() raises.")
      .def(
          "ensure_manifest_file_available",
          [](const ManagerObject& self, nb::handle file_path, nb::handle file_info) {
            const std::string path = text_argument(file_path, "file_path");
            const Document info = document_argument(file_info, "file_info");
            return sync_result_to_python(self.run([&](SyncManager& core) { return core.ensure_manifest_file_available(path, info); }));
          },
          any("file_path"), any("file_info"),
          nb::sig("def ensure_manifest_file_available(self, file_path: str, file_info: collections.abc.Mapping[str, typing.Any]) -> "
                  "SyncResult"),
          "Fetch one file into its place by its manifest entry, unless it is not for this platform.\n\n"
          "Takes no lock: do not run it beside another operation on the same directory. Raises what sync() raises for a file.")
      .def(
          "needs_sync", [](const ManagerObject& self) { return self.run([](SyncManager& core) { return core.needs_sync(); }); },
          nb::sig("def needs_sync(self) -> bool"),
          "Whether a pass would find something to do: one request, and a look at each local file.\n\n"
          "True where that cannot be told. An outage is waited out as in sync(); a `stop_requested` that ends the wait gives True.\n"
          "Raises SyncUnavailableError where the server itself says that retrying cannot help, and json.JSONDecodeError,\n"
          "UnicodeDecodeError or AttributeError where its answer is no JSON object.");
}

}  // namespace

void bind_manager_integrity(nb::class_<ManagerObject>& bound) {
  bound
      .def("_load_hash_cache",
           [](const ManagerObject& self) {
             return to_python(self.run([](SyncManager& core) { return HashCache::_load_hash_cache(core.hash_cache().path()); }));
           })
      .def_static("_cache_stat_key", cache_stat_key, any("local_path"))
      .def(
          "_cached_local_sha",
          [](const ManagerObject& self, nb::handle file_path, nb::handle local_path, nb::handle expected_sha) {
            const std::string relative = text_argument(file_path, "file_path");
            const std::string local = path_argument(local_path, "local_path");
            const std::string sha = expected_sha.is_none() ? std::string() : text_argument(expected_sha, "expected_sha");
            return to_python(self.run([&](SyncManager& core) { return core.hash_cache()._cached_local_sha(relative, local, sha); }));
          },
          any("file_path"), any("local_path"), any("expected_sha"))
      .def(
          "_remember_local_sha",
          [](const ManagerObject& self, nb::handle file_path, nb::handle local_path, nb::handle actual_sha) {
            const std::string relative = text_argument(file_path, "file_path");
            const std::string local = path_argument(local_path, "local_path");
            const std::string sha = actual_sha.is_none() ? std::string() : text_argument(actual_sha, "actual_sha");
            self.run([&](SyncManager& core) { core.hash_cache()._remember_local_sha(relative, local, sha); });
          },
          any("file_path"), any("local_path"), any("actual_sha"))
      .def("_persist_hash_cache",
           [](const ManagerObject& self) { self.run([](SyncManager& core) { core.hash_cache()._persist_hash_cache(); }); })
      .def("_local_file_matches_manifest", file_matches, any("file_path"), any("local_path"), any("file_info"),
           nb::arg("cache_allowed").none() = true)
      .def("_local_manifest_files_complete", files_complete, any("manifest"), nb::arg("active_rotation_state") = nb::none());
  bind_verify_and_repair(bound);
}

}  // namespace brackenfen::sync::python
