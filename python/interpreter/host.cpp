#include "python/interpreter/host.hpp"

#include <pthread.h>

#include <atomic>
#include <chrono>

#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/values.hpp"
#include "sync/base/environment.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/log.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/transport/http_client.hpp"

namespace brackenfen::sync::python {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// ---- signals and exit, seen from a wait ------------------------------------------------------------------

std::atomic<pthread_t> main_thread;

class Interrupts : public InterruptSource {
 public:
  void check() override {
    if (gate::exiting()) throw Interrupted{};
    // Python handles signals on its main thread alone. A loop may ask far more often than a wait does.
    if (pthread_equal(pthread_self(), main_thread) == 0 || Clock::now() < next_) return;
    SharedRef raised;
    {
      const Attached guard;
      if (PyErr_CheckSignals() != 0) raised = share(nb::steal(PyErr_GetRaisedException()));
    }
    next_ = Clock::now() + SPACING;
    if (raised) throw Interrupted{std::move(raised)};
  }

  /// As any thread of Python ends that is left with an exception; SystemExit is silent there.
  void unclaimed(const Interrupted& interrupted) override {
    try {
      const Attached guard;
      try {
        const nb::handle exception = static_cast<const PyRef*>(interrupted.origin.get())->get();
        const nb::module_ threading = nb::module_::import_("threading");
        const nb::tuple arguments =
            nb::make_tuple(exception.type(), exception, exception.attr("__traceback__"), threading.attr("current_thread")());
        threading.attr("excepthook")(threading.attr("ExceptHookArgs")(arguments));
      } catch (nb::python_error& error) {
        error.discard_as_unraisable("threading.excepthook");
      }
    } catch (const Interrupted&) {  // the interpreter is going
    }
  }

 private:
  static constexpr milliseconds SPACING = INTERRUPT_SLICE * 4 / 5;
  Clock::time_point next_;  // main thread only
};

// ---- logging ---------------------------------------------------------------------------------------------

/// Asks the logger for its level whenever the interpreter lock is at hand, and at most once a second where
/// it is not, so that a level that is off costs a long operation nothing.
class LoggingSink : public LogSink {
 public:
  explicit LoggingSink(nb::object logger) : logger_(std::move(logger)) {}

  bool enabled(LogLevel level) override {
    if (attached() || now_ns() - refreshed_ns_.load(std::memory_order_relaxed) > LONGEST_BELIEF_NS) {
      try {
        call_python([this] { refresh(); });
      } catch (const Interrupted& interrupted) {
        if (interrupted.origin) throw;
        return false;  // the interpreter is going
      }
    }
    return static_cast<int>(level) >= threshold_.load(std::memory_order_relaxed);
  }

  /// A filter or handler that fails, fails the caller; on a thread of the library's own there is none.
  void write(const LogRecord& record) override {
    const bool has_caller = !on_own_thread();
    call_python([&] {
      try {
        hand_over(record);
      } catch (nb::python_error& error) {
        if (has_caller) throw;
        tell_of_failure(error);
      }
    });
  }

  /// Attached threads only. Python code runs here, and with it the handler of a signal that has just come:
  /// throws what that raises.
  void refresh() {
    int threshold = OFF;
    try {
      threshold = lowest_enabled();
    } catch (nb::python_error& error) {
      if (is_of_a_signal()) throw;
      tell_of_failure(error);
    }
    threshold_.store(threshold, std::memory_order_relaxed);
    refreshed_ns_.store(now_ns(), std::memory_order_relaxed);
  }

 private:
  static constexpr int OFF = 1000;
  static constexpr std::int64_t LONGEST_BELIEF_NS = 1'000'000'000;
  static std::int64_t now_ns() { return std::chrono::nanoseconds(Clock::now().time_since_epoch()).count(); }

  [[nodiscard]] int lowest_enabled() const {
    const nb::object is_enabled_for = logger_.get().attr("isEnabledFor");
    for (const LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Warning, LogLevel::Error})
      if (truth(is_enabled_for(static_cast<int>(level)))) return static_cast<int>(level);
    return OFF;
  }

  /// Whether what lowest_enabled() has thrown was not the logger's own: that would fail again.
  [[nodiscard]] bool is_of_a_signal() const {
    if (pthread_equal(pthread_self(), main_thread) == 0) return false;
    try {
      static_cast<void>(lowest_enabled());
      return true;
    } catch (nb::python_error& again) {
      if (!again.matches(PyExc_Exception)) throw;
      return false;
    }
  }

  void hand_over(const LogRecord& record) const {
    nb::list arguments;
    arguments.append(static_cast<int>(record.level));
    arguments.append(to_python(record.format));
    for (const Value& argument : record.arguments) {
      // As text, since Python refuses to print an integer of thousands of digits, which may be a server's version.
      const std::optional<std::string_view> digits = argument.if_big_integer();
      arguments.append(digits ? to_python(*digits) : to_python(mask_secrets(argument)));
    }
    // The host's own objects, so that a handler sees what they are.
    if (record.subject != nullptr) arguments[2] = object_of(*record.subject);
    if (record.error != nullptr && record.error->origin()) arguments[1 + record.arguments.size()] = exception_of(*record.error);
    nb::dict keywords;
    if (record.event != nullptr) {
      nb::dict extra;
      extra["brackenfen_sync_event"] = to_python(*record.event);
      keywords["extra"] = extra;
    }
    if (record.error != nullptr) keywords["exc_info"] = exception_of(*record.error);
    logger_.get().attr("log")(*arguments, **keywords);
  }

  static void tell_of_failure(nb::python_error& error) {
    if (!error.matches(PyExc_Exception)) throw;
    error.discard_as_unraisable("logging");
  }

  PyRef logger_;
  std::atomic<int> threshold_{OFF};
  std::atomic<std::int64_t> refreshed_ns_{-LONGEST_BELIEF_NS};
};

LoggingSink* the_sink = nullptr;  // never destroyed

// ---- the end of the interpreter --------------------------------------------------------------------------

/// Before threads of the host are joined, which may be waiting in us.
void end_waits() {
  if (gate::exiting()) return;
  gate::begin_exit();
  gate::drain(milliseconds(1500));
  gate::close_workers(milliseconds(200));
}

/// After they have been joined: only daemon threads are left, and none may ask for the interpreter lock again.
void close_gate() {
  end_waits();
  gate::close(milliseconds(200));
}

/// Has waits ended before threading joins the threads of the host, those of the module `pools` among them.
void end_waits_before_joins(const char* pools = nullptr) {
  try {
    if (pools != nullptr) nb::module_::import_(pools);
    nb::module_::import_("threading").attr("_register_atexit")(nb::cpp_function(end_waits));
  } catch (nb::python_error& error) {  // an interpreter without that hook, or one that is at its end: close_gate does both
    if (!error.matches(PyExc_Exception)) throw;
  }
}

}  // namespace

void end_waits_before_thread_pools() {
  static bool done = false;  // under the interpreter lock
  if (done) return;
  // Hooks run in reverse. That of the host's thread pools joins their threads, which may be waiting in us, so it must be there
  // before ours: otherwise it would come whenever the host first uses a pool.
  end_waits_before_joins("concurrent.futures.thread");
  done = true;
}

void install_host() {
  if (the_sink != nullptr) return;
  gate::install();
  the_sink = new LoggingSink(nb::module_::import_("logging").attr("getLogger")(LOGGER_NAME));
  gate::set_before_release([] { the_sink->refresh(); });
  set_log_sink(the_sink);
  // Python changes the environment under its own lock.
  set_environment_guard([](const std::function<void()>& reading) {
    const Attached guard;
    reading();
  });
  // Read by the libraries below once, and here under that lock.
  HttpClient::set_up_real();
  static_cast<void>(_sha256(""));

  main_thread = static_cast<pthread_t>(PyLong_AsUnsignedLong(nb::module_::import_("threading").attr("main_thread")().attr("ident").ptr()));
  at_fork_child([] { main_thread = pthread_self(); });
  set_interrupt_source(new Interrupts);

  end_waits_before_joins();
  nb::module_::import_("atexit").attr("register")(nb::cpp_function(close_gate));
}

}  // namespace brackenfen::sync::python
