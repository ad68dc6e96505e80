// Preloaded into a program: numbers its calls that change what lies below one directory, over all threads, and makes
// chosen ones fail or kill the process at their entry. Calls that the C library makes inside itself are not seen.
//
//   FAULT_BELOW=DIRECTORY/  whose calls count
//   FAULT_LOG=FILE          gets a line "CALL NANOSECONDS PATH" for each, of the monotonic clock
//   FAULT_AT=N              which call, counted from 1; with FAULT_LATER set all later ones too that the action suits
//   FAULT_ACTION=WORD       KILL; SHORT, where a write takes half; or the name of an error
//   FAULT_SHARED=FILE       counts of all processes, see Shared
//   FAULT_MEMORY_AT=N       which allocation fails, counted from 1 on where the program has set torture_allocations to 0; with
//                           FAULT_LATER set the hundred after it too
//   FAULT_MEMORY_ON=NAME    counts those of threads whose names begin so alone
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <map>
#include <new>
#include <string>
#include <string_view>

#define HOOK extern "C" __attribute__((visibility("default")))

/// Below 0 until the program says where what it starts with is over.
__attribute__((visibility("default"))) constinit std::atomic<long> torture_allocations{LONG_MIN};

namespace {

/// For as long as one of our functions runs, whose memory never fails.
struct OwnCall {
  static inline thread_local bool runs = false;
  OwnCall() { runs = true; }
  OwnCall(const OwnCall&) = delete;
  OwnCall& operator=(const OwnCall&) = delete;
  ~OwnCall() { runs = false; }
};

/// The next definition of a function, behind ours.
template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// The holders of the directory over all processes.
struct Shared {
  std::atomic<std::int64_t> owner;     ///< the process that locked the directory last
  std::atomic<std::int64_t> holds;     ///< how often it was locked
  std::atomic<std::int64_t> overlaps;  ///< changes while another process had locked it since
  std::atomic<std::int64_t> unlocked;  ///< changes by a process that did not hold it
};

Shared* open_shared(const std::string& path) {
  if (path.empty()) return nullptr;
  const long file = ::syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDWR | O_CLOEXEC);
  void* const memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
  ::syscall(SYS_close, file);
  return memory == MAP_FAILED ? nullptr : static_cast<Shared*>(memory);
}

struct Plan {
  std::string below = environment("FAULT_BELOW"), log = environment("FAULT_LOG"), action = environment("FAULT_ACTION");
  long at = std::atol(environment("FAULT_AT").c_str());
  bool later = !environment("FAULT_LATER").empty();
  std::string memory_on = environment("FAULT_MEMORY_ON");
  long memory_at = std::atol(environment("FAULT_MEMORY_AT").c_str());
  Shared* shared = open_shared(environment("FAULT_SHARED"));
};

const Plan& plan() {
  static const Plan& made = *new Plan;
  return made;
}

std::atomic<int> held{0};  ///< how many of this process's descriptors hold the directory; two managers may share a process

std::string path_of(int file) {
  char target[PATH_MAX];
  const ssize_t size = ::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), target, sizeof target);
  return {target, size > 0 ? static_cast<std::size_t>(size) : 0};
}

std::string at(int directory, const char* path) { return path[0] == '/' || directory == AT_FDCWD ? path : path_of(directory) + "/" + path; }

void append(const std::string& path, const std::string& line) {
  const long file = ::syscall(SYS_openat, AT_FDCWD, path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ::syscall(SYS_write, file, line.data(), line.size());
  ::syscall(SYS_close, file);
}

/// Whether a later call may fail like this too: a full disk refuses nothing that makes room, a read-only one everything.
bool suits(std::string_view call) { return plan().action != "ENOSPC" || call == "create" || call == "mkdir" || call == "write"; }

/// Files that change outside of units of work: the locks themselves, the count of consumers, what people look at, and what a
/// transition has staged, which goes when it has let go of the directory.
bool is_free_to_change(std::string_view name) {
  constexpr std::string_view FREE[] = {".sync_flock", ".consumer_count", ".transition_", "sync-progress.json"};
  return std::ranges::any_of(FREE, [name](std::string_view free) { return name.starts_with(free); });
}

void note_holder(const char* call, const std::string& path) {
  Shared* const shared = plan().shared;
  if (shared == nullptr || is_free_to_change(std::string_view(path).substr(plan().below.size()))) return;
  if (held == 0) {
    ++shared->unlocked;
    append(plan().log, std::string("unlocked ") + call + " " + path + "\n");
  } else if (shared->owner != ::getpid()) {
    ++shared->overlaps;
  }
}

enum class Effect { None, Half, Fail };

Effect point(const char* call, const std::string& path) {
  static std::atomic<long> count{0};
  if (plan().below.empty() || !path.starts_with(plan().below)) return Effect::None;
  note_holder(call, path);
  if (!plan().log.empty() && plan().shared == nullptr) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    append(plan().log, std::string(call) + " " + std::to_string(now.tv_sec * 1'000'000'000 + now.tv_nsec) + " " + path + "\n");
  }
  const long number = ++count;
  if (plan().at == 0 || (number != plan().at && !(plan().later && number > plan().at && suits(call)))) return Effect::None;
  if (plan().action == "KILL") ::kill(::getpid(), SIGKILL);
  if (plan().action == "SHORT") return Effect::Half;
  static const std::map<std::string, int> ERRORS = {{"ENOSPC", ENOSPC}, {"EIO", EIO},     {"EACCES", EACCES},
                                                    {"EMFILE", EMFILE}, {"EINTR", EINTR}, {"EROFS", EROFS}};
  errno = ERRORS.at(plan().action);
  return Effect::Fail;
}

bool refused(const char* call, const std::string& path) { return point(call, path) == Effect::Fail; }

int open_counted(const char* name, int directory, const char* path, int flags, mode_t mode) {
  const OwnCall own;
  if ((flags & O_CREAT) != 0 && refused("create", at(directory, path))) return -1;
  return real<int(int, const char*, int, ...)>(name)(directory, path, flags, mode);
}

template <typename... Offset>
ssize_t write_counted(const char* name, int file, const void* data, std::size_t size, Offset... offset) {
  const OwnCall own;
  const Effect effect = point("write", path_of(file));
  if (effect == Effect::Fail) return -1;
  return real<ssize_t(int, const void*, std::size_t, Offset...)>(name)(file, data, effect == Effect::Half ? (size + 1) / 2 : size,
                                                                       offset...);
}

bool is_directory(int file) { return plan().shared != nullptr && path_of(file) + "/" == plan().below; }

}  // namespace

#define DEFINE_OPEN(NAME, FIRST_PARAMETER, DIRECTORY, AT_NAME)             \
  HOOK int NAME(FIRST_PARAMETER const char* path, int flags, ...) {        \
    va_list arguments;                                                     \
    va_start(arguments, flags);                                            \
    const mode_t mode = (flags & O_CREAT) ? va_arg(arguments, mode_t) : 0; \
    va_end(arguments);                                                     \
    return open_counted(AT_NAME, DIRECTORY, path, flags, mode);            \
  }
#define DIRECTORY_PARAMETER int directory,
DEFINE_OPEN(open, , AT_FDCWD, "openat")
DEFINE_OPEN(openat, DIRECTORY_PARAMETER, directory, "openat")

#define DEFINE(NAME, CALL, PATH, PARAMETERS, ARGUMENTS) \
  HOOK int NAME PARAMETERS {                            \
    const OwnCall own;                                  \
    if (refused(CALL, PATH)) return -1;                 \
    return real<int PARAMETERS>(#NAME) ARGUMENTS;       \
  }
DEFINE(rename, "rename", to, (const char* from, const char* to), (from, to))
DEFINE(renameat, "rename", at(to_folder, to), (int folder, const char* from, int to_folder, const char* to), (folder, from, to_folder, to))
DEFINE(unlink, "unlink", path, (const char* path), (path))
DEFINE(unlinkat, "unlink", at(folder, path), (int folder, const char* path, int flags), (folder, path, flags))
DEFINE(rmdir, "unlink", path, (const char* path), (path))
DEFINE(mkdir, "mkdir", path, (const char* path, mode_t mode), (path, mode))
DEFINE(mkdirat, "mkdir", at(folder, path), (int folder, const char* path, mode_t mode), (folder, path, mode))
DEFINE(ftruncate, "truncate", path_of(file), (int file, off_t size), (file, size))
DEFINE(fsync, "fsync", path_of(file), (int file), (file))

HOOK ssize_t write(int file, const void* data, std::size_t size) { return write_counted("write", file, data, size); }
HOOK ssize_t pwrite(int file, const void* data, std::size_t size, off_t offset) {
  return write_counted("pwrite", file, data, size, offset);
}
HOOK ssize_t writev(int file, const iovec* parts, int count) {
  const OwnCall own;
  return refused("write", path_of(file)) ? -1 : real<ssize_t(int, const iovec*, int)>("writev")(file, parts, count);
}

HOOK int flock(int file, int operation) {
  const OwnCall own;
  const bool counts = is_directory(file);
  if (counts && (operation & LOCK_UN) != 0) --held;
  const int outcome = real<int(int, int)>("flock")(file, operation);
  if (counts && outcome == 0 && (operation & LOCK_EX) != 0) {
    ++held;
    ++plan().shared->holds;
    plan().shared->owner = ::getpid();
  }
  return outcome;
}

bool memory_ends() {
  const OwnCall own;
  char name[16] = {};
  ::pthread_getname_np(::pthread_self(), name, sizeof name);
  if (!std::string_view(name).starts_with(plan().memory_on)) return false;
  const long behind = ++torture_allocations - plan().memory_at;
  return plan().memory_at > 0 && behind >= 0 && behind <= (plan().later ? 100 : 0);
}

/// The other forms of new come here.
__attribute__((visibility("default"))) void* operator new(std::size_t size) {
  if (torture_allocations >= 0 && !OwnCall::runs && memory_ends()) throw std::bad_alloc();
  if (void* const block = std::malloc(size > 0 ? size : 1)) return block;
  throw std::bad_alloc();
}
