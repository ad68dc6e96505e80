// The least that reading JSON documents costs: simdjson parses them one after the other, once, in a new process. Prints
// the milliseconds from opening the first file to the last tree; ends with 3 where it was built without simdjson.
//
//   parse_limit FILE...
#include <chrono>
#include <cstdio>

#ifdef BRACKENFEN_SIMDJSON
#include <simdjson.h>

int main(int count, char** arguments) {
  const auto began = std::chrono::steady_clock::now();
  std::size_t bytes = 0;
  for (int index = 1; index < count; ++index) {
    simdjson::padded_string text;
    simdjson::dom::parser parser;
    simdjson::dom::element tree;
    if (simdjson::padded_string::load(arguments[index]).get(text) != simdjson::SUCCESS ||
        parser.parse(text).get(tree) != simdjson::SUCCESS) {
      std::fprintf(stderr, "cannot parse %s\n", arguments[index]);
      return 1;
    }
    bytes += text.size();
  }
  const auto took = std::chrono::steady_clock::now() - began;
  std::printf(R"({"bytes": %zu, "parse_ms": %.2f})"
              "\n",
              bytes, std::chrono::duration<double, std::milli>(took).count());
}
#else
int main() { return 3; }
#endif
