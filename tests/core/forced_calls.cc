#include "tests/core/forced_calls.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

core_test::ForcedCalls forced;
int backlogAsked = 0;

constexpr int originalDestinationOption = 80;

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

namespace core_test {

Forcing::Forcing(const ForcedCalls& calls) {
  forced = calls;
}

Forcing::~Forcing() {
  forced = {};
}

int lastBacklog() {
  return backlogAsked;
}

}  // namespace core_test

extern "C" int socket(int domain, int type, int protocol) noexcept {
  if (domain == AF_INET6 && forced.inet6Error != 0) return fail(forced.inet6Error);
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int listen(int fd, int backlog) noexcept {
  backlogAsked = backlog;
  if (forced.listenError != 0) return fail(forced.listenError);
  return static_cast<int>(syscall(SYS_listen, fd, backlog));
}

extern "C" int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
  if (level == SOL_IP && option == originalDestinationOption && forced.originalDestination) {
    const sockaddr_in& address = *forced.originalDestination;
    if (*length < sizeof address) return fail(EINVAL);
    std::memcpy(value, &address, sizeof address);
    *length = sizeof address;
    return 0;
  }
  return static_cast<int>(syscall(SYS_getsockopt, fd, level, option, value, length));
}
