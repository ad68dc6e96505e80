#include "python/bindings/binding.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync::python {

void bind_files(nb::module_& module) {
  module.attr("_SYNC_HASH_FILE_CHUNK_BYTES") = SYNC_HASH_FILE_CHUNK_BYTES;
  module.def(
      "_sha256",
      [](nb::handle data) {
        const BytesArgument bytes(data, "data");
        return to_python(detached([&] { return _sha256(bytes.view()); }));
      },
      any("data"));
  module.def(
      "_sha256_file",
      [](nb::handle filepath, nb::handle chunk_bytes) {
        const std::string path = path_argument(filepath, "filepath");
        const std::int64_t chunk = integer_argument(chunk_bytes, "chunk_bytes");
        return to_python(detached([&] { return _sha256_file(path, chunk); }));
      },
      any("filepath"), nb::arg("chunk_bytes").none() = SYNC_HASH_FILE_CHUNK_BYTES);
  module.def(
      "_atomic_write",
      [](nb::handle filepath, nb::handle data) {
        const std::string path = path_argument(filepath, "filepath");
        const BytesArgument bytes(data, "data");
        const Seams seams = host_seams();
        detached([&] { _atomic_write(*seams.files, *seams.clock, path, bytes.view()); });
      },
      any("filepath"), any("data"));
}

}  // namespace brackenfen::sync::python
