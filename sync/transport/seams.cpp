#include "sync/transport/seams.hpp"

namespace brackenfen::sync {

Seams Seams::real() { return {&HttpClient::real(), &Clock::real(), &Files::real(), &Environment::real(), &Neighbours::builtin()}; }

}  // namespace brackenfen::sync
