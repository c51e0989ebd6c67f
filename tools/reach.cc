#include "tools/reach.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

#include "platform/unique_fd.h"

namespace tool {

std::optional<std::string> whyUnreachable(const std::string& socketPath) {
  const auto because = [&](int error) { return "cannot reach the bus at " + socketPath + ": " + std::strerror(error); };
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path) return because(ENAMETOOLONG);
  std::copy(socketPath.begin(), socketPath.end(), address.sun_path);
  // Without waiting: a broker that hangs with a full backlog is not to hang this program too.
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return because(errno);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return because(errno);
  return std::nullopt;
}

}  // namespace tool
