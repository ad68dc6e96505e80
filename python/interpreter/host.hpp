// The library inside the life of an interpreter: signals, logging, exit and fork.
#pragma once

#include <nanobind/nanobind.h>

namespace brackenfen::sync::python {

/// Installs the log sink, the interrupt source and the hooks. Once per process; later calls do nothing.
///
/// Signals: a wait on the main thread lets Python handle its signals at least every 50 ms and ends with
/// what a handler raises. Exit: every wait ends; on threads of the host with SystemExit.
void install_host();

/// Makes the end of the interpreter end waits before it joins the host's thread pools, whose module it imports: so not at
/// install_host(), where it would make every import longer. Before the first manager is made; later calls do nothing.
void end_waits_before_thread_pools();

}  // namespace brackenfen::sync::python
