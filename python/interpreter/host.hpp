// The library inside the life of an interpreter: signals, logging, exit and fork.
#pragma once

#include <nanobind/nanobind.h>

namespace brackenfen::sync::python {

/// Installs the log sink, the interrupt source and the hooks. Once per process; later calls do nothing.
///
/// Signals: a wait on the main thread lets Python handle its signals at least every 50 ms and ends with
/// what a handler raises. Exit: every wait ends; on threads of the host with SystemExit.
void install_host();

}  // namespace brackenfen::sync::python
