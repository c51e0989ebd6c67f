// The system calls of a program, any one of which can be told to fail. Linked into the program under test with
// --wrap=NAME for each call below (CMakeLists.txt), so that the program's own calls come through here and those of the
// C library do not.
//
// The test and the program share a page, /run/faults/<program> of the image, which the test makes before it starts the
// program: there the test says which call is to fail, and reads how often each was used. Without it nothing fails.
//
//   offset  size
//        0     4  number of the call that is to fail, 0 for none
//        4     4  its uses until then; 1: the next one fails
//        8     4  how many uses fail, one after the other
//       12     4  with which errno
//       16     4  how many have failed
//       20    20  the same of a second call, which waits until the first has failed
//       40  4*80  uses of each call; that of call N is at 40 + 4*N
//      512 16*80  names, NUL-terminated; that of call N is at 512 + 16*N
//
// Numbers are in the machine's byte order. A child of the program shares the page until it becomes another program.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t maxCalls = 80;
constexpr std::size_t nameBytes = 16;

struct Fault {
  std::uint32_t call;
  std::uint32_t countdown;
  std::uint32_t times;
  std::uint32_t error;
  std::uint32_t failed;
};

struct Page {
  Fault faults[2];
  std::uint32_t used[maxCalls];
  std::uint8_t unused[512 - 2 * sizeof(Fault) - 4 * maxCalls];
  char names[maxCalls][nameBytes];
};
static_assert(sizeof(Page) == 512 + maxCalls * nameBytes);

constexpr std::array<const char*, 70> calls = {
    "",          "read",        "write",          "send",           "sendmsg",     "recvmsg",
    "sendfile",  "accept4",     "epoll_ctl",      "epoll_wait",     "open",        "fstat",
    "stat",      "lstat",       "mmap",           "socket",         "bind",        "listen",
    "connect",   "setsockopt",  "getsockopt",     "getsockname",    "getpeername", "fcntl",
    "ioctl",     "poll",        "signalfd",       "opendir",        "readdir",     "mkdir",
    "unlink",    "chmod",       "flock",          "realpath",       "access",      "shutdown",
    "getrlimit", "setrlimit",   "epoll_create1",  "recv",           "fsync",       "rename",
    "pread",     "pwrite",      "fdatasync",      "ftruncate",      "getrandom",   "socketpair",
    "eventfd",   "fdopendir",   "openat",         "mkdirat",        "renameat2",   "unlinkat",
    "fstatat",   "statvfs",     "pipe2",          "fallocate",      "fchmod",      "inotify_init1",
    "fork",      "execv",       "waitpid",        "kill",           "prctl",       "setpgid",
    "dup2",      "close_range", "timerfd_create", "timerfd_settime"};
static_assert(calls.size() <= maxCalls);

consteval std::uint32_t numberOf(std::string_view name) {
  std::uint32_t number = 0;
  while (name != calls[number])
    ++number;
  return number;
}

Page* openPage() {
  std::array<char, 64> path{};
  std::snprintf(path.data(), path.size(), "/run/faults/%s", program_invocation_short_name);
  const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.data(), O_RDWR | O_CLOEXEC));
  if (fd < 0) return nullptr;
  const long address = syscall(SYS_mmap, nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  syscall(SYS_close, fd);
  if (address == -1) return nullptr;
  auto* page = reinterpret_cast<Page*>(address);
  for (std::uint32_t number = 0; number < calls.size(); ++number)
    std::snprintf(page->names[number], nameBytes, "%s", calls[number]);
  return page;
}

// Whether this use of its call is one that the fault is about.
bool strikes(Fault& fault) {
  if (fault.times == 0) return false;
  if (fault.countdown > 1) {
    --fault.countdown;
    return false;
  }
  --fault.times;
  ++fault.failed;
  errno = static_cast<int>(fault.error);
  return true;
}

// Counts a use; true, with errno set, when it is one that has to fail.
bool fails(std::uint32_t number) {
  static Page* const page = openPage();
  if (page == nullptr) return false;
  ++page->used[number];
  Fault& first = page->faults[0];
  Fault& second = page->faults[1];
  if (first.call == number && strikes(first)) return true;
  return second.call == number && first.failed != 0 && strikes(second);
}

}  // namespace

// What the linker knows those calls as whose times or sizes the library had to make wider. In CMakeLists.txt, too.
#if __TIMESIZE == 32
#define SYMBOL_SENDMSG __sendmsg64
#define SYMBOL_RECVMSG __recvmsg64
#define SYMBOL_FSTAT __fstat64_time64
#define SYMBOL_STAT __stat64_time64
#define SYMBOL_LSTAT __lstat64_time64
#define SYMBOL_FSTATAT __fstatat64_time64
#define SYMBOL_SETSOCKOPT __setsockopt64
#define SYMBOL_GETSOCKOPT __getsockopt64
#define SYMBOL_FCNTL __fcntl_time64
#define SYMBOL_IOCTL __ioctl_time64
#define SYMBOL_TIMERFD_SETTIME __timerfd_settime64
#else
#define SYMBOL_SENDMSG sendmsg
#define SYMBOL_RECVMSG recvmsg
#define SYMBOL_FSTAT fstat64
#define SYMBOL_STAT stat64
#define SYMBOL_LSTAT lstat64
#define SYMBOL_FSTATAT fstatat64
#define SYMBOL_SETSOCKOPT setsockopt
#define SYMBOL_GETSOCKOPT getsockopt
#define SYMBOL_FCNTL fcntl64
#define SYMBOL_IOCTL ioctl
#define SYMBOL_TIMERFD_SETTIME timerfd_settime
#endif

// A call NAME of the library, known to the linker as SYMBOL, that returns FAILURE when it fails.
#define FAILING(name, symbol, Result, failure, parameters, arguments) \
  FAILING_AS(name, symbol, Result, failure, parameters, arguments)
#define FAILING_AS(name, symbol, Result, failure, parameters, arguments) \
  extern "C" Result __real_##symbol parameters;                          \
  extern "C" Result __wrap_##symbol parameters;                          \
  extern "C" Result __wrap_##symbol parameters {                         \
    if (fails(numberOf(name))) return failure;                           \
    return __real_##symbol arguments;                                    \
  }

FAILING("read", read, ssize_t, -1, (int fd, void* data, std::size_t size), (fd, data, size))
FAILING("write", write, ssize_t, -1, (int fd, const void* data, std::size_t size), (fd, data, size))
FAILING("send", send, ssize_t, -1, (int fd, const void* data, std::size_t size, int flags), (fd, data, size, flags))
FAILING("sendmsg", SYMBOL_SENDMSG, ssize_t, -1, (int fd, const msghdr* header, int flags), (fd, header, flags))
FAILING("recvmsg", SYMBOL_RECVMSG, ssize_t, -1, (int fd, msghdr* header, int flags), (fd, header, flags))
FAILING("sendfile", sendfile64, ssize_t, -1, (int out, int in, off_t* offset, std::size_t size),
        (out, in, offset, size))
FAILING("accept4", accept4, int, -1, (int fd, sockaddr* address, socklen_t* length, int flags),
        (fd, address, length, flags))
FAILING("epoll_create1", epoll_create1, int, -1, (int flags), (flags))
FAILING("epoll_ctl", epoll_ctl, int, -1, (int epoll, int operation, int fd, epoll_event* event),
        (epoll, operation, fd, event))
FAILING("epoll_wait", epoll_wait, int, -1, (int epoll, epoll_event* events, int count, int timeout),
        (epoll, events, count, timeout))
FAILING("timerfd_create", timerfd_create, int, -1, (int clock, int flags), (clock, flags))
FAILING("timerfd_settime", SYMBOL_TIMERFD_SETTIME, int, -1,
        (int timer, int flags, const itimerspec* setting, itimerspec* before), (timer, flags, setting, before))
FAILING("fstat", SYMBOL_FSTAT, int, -1, (int fd, struct stat* status), (fd, status))
FAILING("stat", SYMBOL_STAT, int, -1, (const char* path, struct stat* status), (path, status))
FAILING("lstat", SYMBOL_LSTAT, int, -1, (const char* path, struct stat* status), (path, status))
FAILING("mmap", mmap64, void*, MAP_FAILED, (void* at, std::size_t size, int access, int flags, int fd, off_t offset),
        (at, size, access, flags, fd, offset))
FAILING("socket", socket, int, -1, (int domain, int type, int protocol), (domain, type, protocol))
FAILING("bind", bind, int, -1, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
FAILING("listen", listen, int, -1, (int fd, int backlog), (fd, backlog))
FAILING("connect", connect, int, -1, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
FAILING("setsockopt", SYMBOL_SETSOCKOPT, int, -1, (int fd, int level, int option, const void* value, socklen_t length),
        (fd, level, option, value, length))
FAILING("getsockopt", SYMBOL_GETSOCKOPT, int, -1, (int fd, int level, int option, void* value, socklen_t* length),
        (fd, level, option, value, length))
FAILING("getsockname", getsockname, int, -1, (int fd, sockaddr* address, socklen_t* length), (fd, address, length))
FAILING("getpeername", getpeername, int, -1, (int fd, sockaddr* address, socklen_t* length), (fd, address, length))
FAILING("poll", poll, int, -1, (pollfd * entries, nfds_t count, int timeout), (entries, count, timeout))
FAILING("signalfd", signalfd, int, -1, (int fd, const sigset_t* mask, int flags), (fd, mask, flags))
FAILING("opendir", opendir, DIR*, nullptr, (const char* path), (path))
FAILING("readdir", readdir64, dirent*, nullptr, (DIR * directory), (directory))
FAILING("mkdir", mkdir, int, -1, (const char* path, mode_t mode), (path, mode))
FAILING("unlink", unlink, int, -1, (const char* path), (path))
FAILING("chmod", chmod, int, -1, (const char* path, mode_t mode), (path, mode))
FAILING("flock", flock, int, -1, (int fd, int operation), (fd, operation))
FAILING("realpath", realpath, char*, nullptr, (const char* path, char* resolved), (path, resolved))
FAILING("access", access, int, -1, (const char* path, int mode), (path, mode))
FAILING("shutdown", shutdown, int, -1, (int fd, int how), (fd, how))
FAILING("recv", recv, ssize_t, -1, (int fd, void* data, std::size_t size, int flags), (fd, data, size, flags))
FAILING("fsync", fsync, int, -1, (int fd), (fd))
FAILING("fdatasync", fdatasync, int, -1, (int fd), (fd))
FAILING("rename", rename, int, -1, (const char* from, const char* to), (from, to))
FAILING("pread", pread64, ssize_t, -1, (int fd, void* data, std::size_t size, off_t at), (fd, data, size, at))
FAILING("pwrite", pwrite64, ssize_t, -1, (int fd, const void* data, std::size_t size, off_t at), (fd, data, size, at))
FAILING("ftruncate", ftruncate64, int, -1, (int fd, off_t size), (fd, size))
FAILING("fallocate", fallocate64, int, -1, (int fd, int mode, off_t at, off_t size), (fd, mode, at, size))
FAILING("fchmod", fchmod, int, -1, (int fd, mode_t mode), (fd, mode))
FAILING("getrandom", getrandom, ssize_t, -1, (void* data, std::size_t size, unsigned flags), (data, size, flags))
FAILING("socketpair", socketpair, int, -1, (int domain, int type, int protocol, int* ends),
        (domain, type, protocol, ends))
FAILING("eventfd", eventfd, int, -1, (unsigned count, int flags), (count, flags))
FAILING("fdopendir", fdopendir, DIR*, nullptr, (int fd), (fd))
FAILING("mkdirat", mkdirat, int, -1, (int folder, const char* path, mode_t mode), (folder, path, mode))
FAILING("renameat2", renameat2, int, -1, (int from, const char* old, int to, const char* name, unsigned flags),
        (from, old, to, name, flags))
FAILING("unlinkat", unlinkat, int, -1, (int folder, const char* path, int flags), (folder, path, flags))
FAILING("fstatat", SYMBOL_FSTATAT, int, -1, (int folder, const char* path, struct stat* status, int flags),
        (folder, path, status, flags))
FAILING("statvfs", statvfs64, int, -1, (const char* path, struct statvfs* status), (path, status))
FAILING("pipe2", pipe2, int, -1, (int* ends, int flags), (ends, flags))
FAILING("inotify_init1", inotify_init1, int, -1, (int flags), (flags))
FAILING("fork", fork, pid_t, -1, (), ())
FAILING("execv", execv, int, -1, (const char* path, char* const* arguments), (path, arguments))
FAILING("waitpid", waitpid, pid_t, -1, (pid_t pid, int* status, int options), (pid, status, options))
FAILING("kill", kill, int, -1, (pid_t pid, int number), (pid, number))
FAILING("setpgid", setpgid, int, -1, (pid_t pid, pid_t group), (pid, group))
FAILING("dup2", dup2, int, -1, (int fd, int number), (fd, number))
FAILING("close_range", close_range, int, -1, (unsigned first, unsigned last, int flags), (first, last, flags))
FAILING("getrlimit", getrlimit64, int, -1, (int resource, rlimit* limit), (resource, limit))
FAILING("setrlimit", setrlimit64, int, -1, (int resource, const rlimit* limit), (resource, limit))

// Those with a third argument of their own kind. It is passed on as it came, also where there was none to come.
#define FAILING_WITH_REST(name, symbol, First, Second, Rest) FAILING_WITH_REST_AS(name, symbol, First, Second, Rest)
#define FAILING_WITH_REST_AS(name, symbol, First, Second, Rest)     \
  extern "C" int __real_##symbol(First first, Second second, ...);  \
  extern "C" int __wrap_##symbol(First first, Second second, ...);  \
  extern "C" int __wrap_##symbol(First first, Second second, ...) { \
    va_list arguments;                                              \
    va_start(arguments, second);                                    \
    auto rest = va_arg(arguments, Rest);                            \
    va_end(arguments);                                              \
    if (fails(numberOf(name))) return -1;                           \
    return __real_##symbol(first, second, rest);                    \
  }

FAILING_WITH_REST("open", open64, const char*, int, unsigned)
extern "C" int __real_openat64(int folder, const char* path, int flags, ...);
extern "C" int __wrap_openat64(int folder, const char* path, int flags, ...);
extern "C" int __wrap_openat64(int folder, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, unsigned);
  va_end(arguments);
  if (fails(numberOf("openat"))) return -1;
  return __real_openat64(folder, path, flags, mode);
}
FAILING_WITH_REST("fcntl", SYMBOL_FCNTL, int, int, long)
FAILING_WITH_REST("ioctl", SYMBOL_IOCTL, int, unsigned long, void*)
FAILING_WITH_REST("prctl", prctl, int, unsigned long, long)
