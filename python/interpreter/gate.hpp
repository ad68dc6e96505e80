// Who may touch Python, and when: the gate that the end of the interpreter closes, and the guards that give
// the interpreter lock up and take it.
//
// A thread that asks for the interpreter lock after finalisation has begun is ended by pthread_exit in the
// middle of C++ frames, which aborts the process. So every thread passes this gate before it asks, and the
// gate is closed while the interpreter is still whole:
//   1. begin_exit    every wait of the library ends, and nobody gives the interpreter lock up any more;
//   2. close_workers the library's own threads get no further;
//   3. close         neither do threads of the host, which then park for ever instead of being aborted.
//
// No gate stands inside Python itself: a thread that runs a callable of the host, or converts its objects, asks for
// the lock in the interpreter's own loop. Where finalisation ends such a thread, it parks before the first C++ frame
// is unwound.
//
// Lock order: locks of the core before the interpreter lock. Hence a binding converts its arguments, makes a
// Released, and only then enters the core. Leaf locks alone may be taken attached, for a field that is read or
// assigned: nothing asks for the interpreter lock under one.
#pragma once

#include <nanobind/nanobind.h>

#include <chrono>
#include <memory>

namespace nb = nanobind;

namespace brackenfen::sync::python {

/// True where the running thread holds the interpreter lock.
[[nodiscard]] bool attached() noexcept;

/// True on a thread of the library's own, but for what a callback of the host runs there.
[[nodiscard]] bool on_own_thread() noexcept;

namespace gate {
/// Creates the gate, once per process; a forked child finds it open and empty.
void install();

[[nodiscard]] bool exiting() noexcept;
/// True on the thread that runs the end of the interpreter, which must never be parked.
[[nodiscard]] bool on_exit_thread() noexcept;

/// Called on every Released that gives the lock up, just before: for what is cheaper to learn with it. What
/// it throws, the constructor throws.
void set_before_release(void (*hook)()) noexcept;

// The three steps. The interpreter lock is held on entry and given up while they wait.
void begin_exit() noexcept;
/// Waits until no thread of the host is inside the core and no thread of ours is left, or the time is up.
void drain(std::chrono::milliseconds timeout);
void close_workers(std::chrono::milliseconds timeout);
void close(std::chrono::milliseconds timeout);
}  // namespace gate

/// Gives the interpreter lock up for the life of this scope, but not once the exit has begun: waits end at once then, and finalisation
/// cannot catch the thread on its way back. Throws StateError where a callable of the host must not call back: see gate.cpp.
class Released {
 public:
  Released();
  Released(const Released&) = delete;
  Released& operator=(const Released&) = delete;
  ~Released();

 private:
  PyThreadState* state_ = nullptr;
};

/// Holds the interpreter lock for the life of this scope, on any thread, nested or not. Throws Interrupted
/// where the gate is closed. A native thread keeps its thread state until it ends.
class Attached {
 public:
  Attached();
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;
  ~Attached();

 private:
  PyGILState_STATE state_ = PyGILState_UNLOCKED;
  bool nested_ = false;
};

/// An owned Python object that any thread may destroy: on a thread without the interpreter lock the
/// destructor takes it; once the gate is closed the object is left behind.
class PyRef {
 public:
  PyRef() noexcept = default;
  /// Attached threads only.
  explicit PyRef(nb::object object) noexcept : object_(object.release().ptr()) {}
  explicit PyRef(nb::handle object) noexcept : PyRef(nb::borrow(object)) {}
  PyRef(const PyRef&) = delete;
  PyRef& operator=(const PyRef&) = delete;
  ~PyRef();

  /// Attached threads only.
  [[nodiscard]] nb::handle get() const noexcept { return object_; }
  /// Drops the reference now, on an attached thread.
  void clear() noexcept;

 private:
  PyObject* object_ = nullptr;
};

using SharedRef = std::shared_ptr<const PyRef>;
[[nodiscard]] inline SharedRef share(nb::handle object) { return std::make_shared<const PyRef>(object); }

}  // namespace brackenfen::sync::python
