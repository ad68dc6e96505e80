// Loading a manifest of 100,000 entries: parse, sanitise, record. Limits: 100 ms and 150 MB of resident memory.
#include "bench/dataset.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/documents/manifest_filters.hpp"

using namespace brackenfen::sync;

int main() {
  std::string text;
  {
    const Document manifest = bench::make_manifest(100000, 1);
    text = write_json(Value(manifest), JsonForm::InsertionOrder);
  }
  const auto load = [&](auto&& keep) {
    const auto neighbours = Neighbours::builtin().bind();
    keep(Manifest(*neighbours, Value(_sanitize_manifest_data_for_sync(*neighbours, parse_json(text)))));
  };
  double parse_seconds = bench::best_seconds(7, [&] { (void)parse_json(text); });
  double load_seconds = bench::best_seconds(7, [&] { load([](const Manifest&) {}); });
  double write_seconds = 0;
  load([&](const Manifest& manifest) {
    write_seconds = bench::best_seconds(7, [&] { (void)write_json(Value(manifest.data()), JsonForm::InsertionOrder); });
  });
  std::printf(R"({"manifest_bytes": %zu, "parse_ms": %.1f, "load_ms": %.1f, "write_ms": %.1f, "peak_resident_mib": %.1f})"
              "\n",
              text.size(), parse_seconds * 1e3, load_seconds * 1e3, write_seconds * 1e3, bench::peak_resident_mib());
}
