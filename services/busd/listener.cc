#include "services/busd/listener.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace busd {

namespace {

constexpr mode_t folderMode = 0755;
constexpr mode_t lockMode = 0600;
constexpr mode_t socketMode = 0666;  // whoever connects is known by its user

std::unexpected<std::string> failure(std::string_view what, const std::string& path) {
  const int error = errno;
  std::string text(what);
  text += " ";
  text += path;
  text += ": ";
  text += strerror(error);
  return std::unexpected(text);
}

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

void makeFolder(const std::string& path) {
  if (path.empty() || mkdir(path.c_str(), folderMode) == 0 || errno != ENOENT) return;
  makeFolder(parentOf(path));
  mkdir(path.c_str(), folderMode);
}

std::optional<sockaddr_un> addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

UniqueFd makeSocket() {
  return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

// A full backlog (EAGAIN) is somebody who answers, too.
bool answers(const sockaddr_un& address) {
  const UniqueFd probe = makeSocket();
  if (!probe) return false;
  const int result = connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return result == 0 || errno == EAGAIN;
}

}  // namespace

std::expected<Listener, std::string> Listener::open(const std::string& path) {
  const auto address = addressOf(path);
  if (!address) return std::unexpected("the path " + path + " is too long for a socket");
  makeFolder(parentOf(path));

  const std::string lockPath = path + ".lock";
  UniqueFd lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lockMode));
  if (!lock) return failure("cannot open", lockPath);
  const bool locked = flock(lock.get(), LOCK_EX | LOCK_NB) == 0;
  if (!locked && errno != EWOULDBLOCK) return failure("cannot lock", lockPath);
  if (!locked || answers(*address)) {
    return std::unexpected("another broker serves " + path);
  }

  if (unlink(path.c_str()) != 0 && errno != ENOENT) return failure("cannot remove", path);
  UniqueFd socket = makeSocket();
  if (!socket) return failure("cannot make", path);
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    return failure("cannot bind", path);
  }
  if (chmod(path.c_str(), socketMode) != 0) return failure("cannot open to all users", path);
  if (::listen(socket.get(), SOMAXCONN) != 0) return failure("cannot listen on", path);
  return Listener(path, std::move(lock), std::move(socket));
}

Listener::~Listener() {
  if (socket_) unlink(path_.c_str());
}

}  // namespace busd
