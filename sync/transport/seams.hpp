// Everything outside the library that an operation touches, in one struct.
#pragma once

#include "sync/base/environment.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/neighbours/neighbours.hpp"
#include "sync/transport/files.hpp"
#include "sync/transport/http_client.hpp"

namespace brackenfen::sync {

/// Copied freely; what it refers to must outlive every manager.
struct Seams {
  HttpClient* http;
  Clock* clock;
  Files* files;
  Environment* environment;
  Neighbours* neighbours;

  static Seams real();
};

}  // namespace brackenfen::sync
