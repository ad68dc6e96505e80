// Preloaded into a program: numbers its calls that change names below one directory (create, rename, remove), across
// all threads, and kills it with SIGKILL at the entry of a chosen one. Calls that the C library makes inside itself
// are not seen.
//
//   KILL_BELOW=DIRECTORY   whose calls count
//   KILL_AT=N              die at the N-th, counted from 1; absent or 0: never
//   KILL_LOG=FILE          gets a line "CALL PATH" for each
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#define HOOK extern "C" __attribute__((visibility("default")))

namespace {

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

/// The next definition of a function, behind ours.
template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::string whole_path(int directory, const char* path) {
  if (path[0] == '/' || directory == AT_FDCWD) return path;
  char target[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(directory);
  const ssize_t size = ::readlink(link.c_str(), target, sizeof target);
  return std::string(target, size > 0 ? static_cast<std::size_t>(size) : 0) + "/" + path;
}

void point(const char* call, int directory, const char* path) {
  static std::atomic<long> count{0};
  const std::string_view below = environment("KILL_BELOW");
  const std::string whole = whole_path(directory, path);
  if (below.empty() || !whole.starts_with(below)) return;
  if (const std::string_view log = environment("KILL_LOG"); !log.empty()) {
    const std::string line = std::string(call) + " " + whole + "\n";
    const long file = ::syscall(SYS_openat, AT_FDCWD, log.data(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::syscall(SYS_write, file, line.data(), line.size());
    ::syscall(SYS_close, file);
  }
  if (++count == std::atol(std::string(environment("KILL_AT")).c_str())) ::kill(::getpid(), SIGKILL);
}

mode_t mode_of(int flags, va_list arguments) { return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0; }

int open_counted(const char* name, int directory, const char* path, int flags, mode_t mode) {
  if ((flags & O_CREAT) != 0) point("create", directory, path);
  return real<int(int, const char*, int, ...)>(name)(directory, path, flags, mode);
}

}  // namespace

#define DEFINE_OPEN(NAME, AT_NAME)                                    \
  HOOK int NAME(const char* path, int flags, ...) {                   \
    va_list arguments;                                                \
    va_start(arguments, flags);                                       \
    const mode_t mode = mode_of(flags, arguments);                    \
    va_end(arguments);                                                \
    return open_counted(#AT_NAME, AT_FDCWD, path, flags, mode);       \
  }                                                                   \
  HOOK int AT_NAME(int directory, const char* path, int flags, ...) { \
    va_list arguments;                                                \
    va_start(arguments, flags);                                       \
    const mode_t mode = mode_of(flags, arguments);                    \
    va_end(arguments);                                                \
    return open_counted(#AT_NAME, directory, path, flags, mode);      \
  }

DEFINE_OPEN(open, openat)
DEFINE_OPEN(open64, openat64)

HOOK int renameat(int from_directory, const char* from, int to_directory, const char* to) {
  point("rename", to_directory, to);
  return real<int(int, const char*, int, const char*)>("renameat")(from_directory, from, to_directory, to);
}

HOOK int unlink(const char* path) {
  point("unlink", AT_FDCWD, path);
  return real<int(const char*)>("unlink")(path);
}

HOOK int unlinkat(int directory, const char* path, int flags) {
  point("unlink", directory, path);
  return real<int(int, const char*, int)>("unlinkat")(directory, path, flags);
}

HOOK int rmdir(const char* path) {
  point("unlink", AT_FDCWD, path);
  return real<int(const char*)>("rmdir")(path);
}

HOOK int mkdirat(int directory, const char* path, mode_t mode) {
  point("create", directory, path);
  return real<int(int, const char*, mode_t)>("mkdirat")(directory, path, mode);
}

HOOK int mkdir(const char* path, mode_t mode) {
  point("create", AT_FDCWD, path);
  return real<int(const char*, mode_t)>("mkdir")(path, mode);
}
