// One distribution tree over HTTP, for tests, demos and development. It answers what clients ask for:
//
//   GET /data/manifest, /data/manifest/version, /data/files/..., /data/shuffle (with X-Era-Id), /era/current
//
// Everything is opened anew for each request, so a publication shows at once. Bodies go from file to socket in
// the kernel; each connection has a thread of its own, which is what lets a fault wait or drip without harm
// to others.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/distribution/faults.hpp"

namespace brackenfen::sync::distribution {

struct ServeOptions {
  std::string tree;
  std::string host = "127.0.0.1";  ///< a numeric address or "localhost"
  std::uint16_t port = 0;          ///< 0 for any free one
  std::string token;               ///< empty for none
  std::vector<Fault> faults;
  std::string fault_file;
  std::string log_file;  ///< one line for each answer; empty for none
};

/// Serves until SIGINT or SIGTERM. Prints "serving TREE at http://HOST:PORT" once the port is open. Call it on
/// the main thread before any other is started, since it takes over those signals. Throws Error.
void serve(const ServeOptions& options);

}  // namespace brackenfen::sync::distribution
