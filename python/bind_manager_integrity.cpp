#include "python/bind_manager.hpp"
#include "python/callables.hpp"

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
  const std::shared_ptr<const RotationState> state = rotation_state(active_rotation_state);
  return self.run([&](SyncManager& core) { return core._local_manifest_files_complete(*host_neighbours().bind(), *record, state.get()); });
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
}

}  // namespace brackenfen::sync::python
