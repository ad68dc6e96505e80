#include "python/interpreter/gate.hpp"

#include <pthread.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>

#include "sync/base/error.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/worker_thread.hpp"

namespace brackenfen::sync::python {
namespace {

struct Gate {
  std::mutex mutex;  // a leaf; guards the flags and counts
  std::condition_variable changed;
  bool workers_closed = false;
  bool closed = false;
  int passing = 0;   // threads that are asking for the interpreter lock, or workers that hold it
  int released = 0;  // threads of the host inside the core
  std::atomic<bool> exiting{false};
  std::thread::id exit_thread;
};

// Never destroyed: threads that outlive the interpreter still look here.
alignas(Gate) unsigned char gate_storage[sizeof(Gate)];
Gate& the_gate() noexcept { return *std::launder(reinterpret_cast<Gate*>(gate_storage)); }

// Set on threads of the host while they are inside the core. Plain data, so that no thread's end runs code for it.
thread_local int released_depth = 0;

/// What the core runs of the host's on this thread, with the greenlet that it was called on.
struct Callbacks {
  int running = 0;
  const void* greenlet = nullptr;
};
thread_local Callbacks callbacks;

/// No host nests calls and callables as deeply; a stack of 256 KiB holds as many.
constexpr int DEEPEST = 16;

std::atomic<void (*)()> before_release{nullptr};

bool enter(bool worker) noexcept {
  Gate& gate = the_gate();
  const std::lock_guard lock(gate.mutex);
  if (gate.closed || (worker && gate.workers_closed)) return false;
  ++gate.passing;
  return true;
}

void leave() noexcept {
  Gate& gate = the_gate();
  const std::lock_guard lock(gate.mutex);
  if (gate.passing > 0) --gate.passing;  // a forked child started from 0
  gate.changed.notify_all();
}

[[noreturn]] void park() noexcept {
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

/// Which greenlet runs: an address, nullptr for the one that each thread begins with. Where their package is not loaded
/// nothing has been switched.
const void* running_greenlet() {
  static PyObject* const package = PyUnicode_InternFromString("greenlet");  // owned for ever
  PyObject* const modules = PyImport_GetModuleDict();
  if (modules == nullptr || PyDict_Contains(modules, package) != 1) return nullptr;
  const nb::error_scope raised_meanwhile;
  try {
    const nb::object running = nb::borrow(PyDict_GetItemWithError(modules, package)).attr("getcurrent")();
    return nb::object(running.attr("parent")).is_none() ? nullptr : running.ptr();
  } catch (const nb::python_error&) {  // half imported, or something else of that name
    return nullptr;
  }
}

/// For a call from a callable of the host. It must fit the thread's stack. And it must come from the greenlet that the
/// callable was called on: while that one is suspended its frames are not on the stack, but the core has noted where they are.
void require_room_and_order() {
  if (callbacks.running == 0) return;
  if (released_depth >= DEEPEST) throw StateError("calls nest too deeply inside callbacks");
  if (callbacks.greenlet == running_greenlet()) return;
  if (gate::exiting()) throw Interrupted{};
  throw StateError("a callback on another greenlet of this thread has not returned");
}

/// The thread state of one of our own threads. Kept from the first call into Python to the thread's end, so
/// that thread-local data and the thread's name last from one call to the next.
class WorkerState {
 public:
  WorkerState() = default;
  WorkerState(const WorkerState&) = delete;
  WorkerState& operator=(const WorkerState&) = delete;

  ~WorkerState() {
    if (state_ == nullptr || !enter(true)) return;
    PyEval_RestoreThread(state_);
    PyGILState_Release(PyGILState_UNLOCKED);
    leave();
  }

  /// Makes the state on the first call. Returns false where the interpreter lock still has to be taken.
  bool ensure() {
    if (state_ != nullptr || PyGILState_GetThisThreadState() != nullptr) return false;
    static_cast<void>(PyGILState_Ensure());
    state_ = PyThreadState_Get();
    name_thread();
    static_cast<void>(PyEval_SaveThread());
    return true;
  }

 private:
  static void name_thread() {
    char name[16] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof(name)) != 0) return;
    try {
      nb::module_::import_("threading").attr("current_thread")().attr("name") = nb::str(name);
    } catch (const std::exception&) {  // a name is a convenience
    }
  }

  PyThreadState* state_ = nullptr;
};

}  // namespace

bool attached() noexcept { return PyThreadState_GetDict() != nullptr; }

bool on_own_thread() noexcept { return released_depth == 0 && !attached(); }

namespace gate {

void install() {
  static const bool installed = [] {
    new (gate_storage) Gate;
    at_fork_child([] {
      new (gate_storage) Gate;
      released_depth = 0;
    });
    return true;
  }();
  static_cast<void>(installed);
}

bool exiting() noexcept { return the_gate().exiting.load(std::memory_order_acquire); }

bool on_exit_thread() noexcept { return exiting() && the_gate().exit_thread == std::this_thread::get_id(); }

void set_before_release(void (*hook)()) noexcept { before_release = hook; }

void begin_exit() noexcept {
  Gate& gate = the_gate();
  gate.exit_thread = std::this_thread::get_id();
  gate.exiting.store(true, std::memory_order_release);
}

void drain(std::chrono::milliseconds timeout) {
  PyThreadState* const state = PyEval_SaveThread();
  const auto end = std::chrono::steady_clock::now() + timeout;
  {
    Gate& gate = the_gate();
    std::unique_lock lock(gate.mutex);
    gate.changed.wait_until(lock, end, [&] { return gate.released == 0; });
  }
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  static_cast<void>(wait_for_worker_threads(std::max(left, std::chrono::milliseconds(0))));
  PyEval_RestoreThread(state);
}

namespace {
void shut(bool Gate::*flag, std::chrono::milliseconds timeout) {
  PyThreadState* const state = PyEval_SaveThread();
  {
    Gate& gate = the_gate();
    std::unique_lock lock(gate.mutex);
    gate.*flag = true;
    gate.changed.wait_for(lock, timeout, [&] { return gate.passing == 0; });
  }
  PyEval_RestoreThread(state);
}
}  // namespace

void close_workers(std::chrono::milliseconds timeout) { shut(&Gate::workers_closed, timeout); }
void close(std::chrono::milliseconds timeout) { shut(&Gate::closed, timeout); }

}  // namespace gate

Released::Released() {
  if (!attached()) return;
  require_room_and_order();
  if (gate::exiting()) return;
  if (auto* const hook = before_release.load(std::memory_order_relaxed)) hook();
  Gate& gate = the_gate();
  {
    const std::lock_guard lock(gate.mutex);
    ++gate.released;
  }
  ++released_depth;
  state_ = PyEval_SaveThread();
}

Released::~Released() {
  if (state_ == nullptr) return;
  if (!enter(false)) park();
  PyEval_RestoreThread(state_);
  Gate& gate = the_gate();
  const std::lock_guard lock(gate.mutex);
  if (released_depth > 0) {  // else the process was forked inside
    --released_depth;
    --gate.released;
  }
  if (gate.passing > 0) --gate.passing;
  gate.changed.notify_all();
}

Attached::Attached() {
  nested_ = attached();
  if (nested_) return;
  if (!enter(released_depth == 0)) throw Interrupted{};
  static thread_local WorkerState worker_state;
  worker_state.ensure();
  state_ = PyGILState_Ensure();
  // Those inside it run on the same greenlet: no other one gets in.
  if (callbacks.running++ == 0) callbacks.greenlet = running_greenlet();
}

Attached::~Attached() {
  if (nested_) return;
  --callbacks.running;
  PyGILState_Release(state_);
  leave();
}

PyRef::~PyRef() {
  if (object_ == nullptr) return;
  if (attached()) {
    clear();
    return;
  }
  // Where the interpreter is going, or has no memory for this thread, the object is left behind.
  drop_failure([this] {
    const Attached guard;
    clear();
  });
}

void PyRef::clear() noexcept { Py_CLEAR(object_); }

namespace {

/// Whether finalisation is ending the running thread: pthread_exit unwinds it, and it got no interpreter lock.
bool ended_by_finalisation(_Unwind_Action actions) noexcept { return (actions & _UA_FORCE_UNWIND) != 0 && gate::exiting() && !attached(); }

}  // namespace
}  // namespace brackenfen::sync::python

// The unwinder asks this routine, before it runs anything, about each frame that has destructors or handlers. The
// linker puts it in the place of the language's own one for every object file of the module (--wrap), the binding
// library's too. So a thread that finalisation ends inside Python parks at the innermost frame of ours: no destructor
// drops a reference without the interpreter lock, and no handler takes the unwinding for an error.
extern "C" {
_Unwind_Reason_Code __real___gxx_personality_v0(int version, _Unwind_Action actions, _Unwind_Exception_Class exception_class,
                                                _Unwind_Exception* exception, _Unwind_Context* context);

_Unwind_Reason_Code __wrap___gxx_personality_v0(int version, _Unwind_Action actions, _Unwind_Exception_Class exception_class,
                                                _Unwind_Exception* exception, _Unwind_Context* context) {
  using namespace brackenfen::sync::python;
  if (ended_by_finalisation(actions)) park();
  return __real___gxx_personality_v0(version, actions, exception_class, exception, context);
}
}
