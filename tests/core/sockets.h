#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/byte_order.h"
#include "platform/unique_fd.h"

namespace core_test {

inline sockaddr_in6 anyAddress6(std::uint32_t port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  storeBe16(reinterpret_cast<std::uint8_t*>(&address.sin6_port), static_cast<std::uint16_t>(port));
  return address;
}

inline std::uint32_t portOf(int socket) {
  sockaddr_in6 address{};
  socklen_t length = sizeof address;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  return loadBe16(reinterpret_cast<const std::uint8_t*>(&address.sin6_port));
}

// Keeps a TCP port that is free from being given to anybody else, without hindering a listener that reuses addresses:
// so a record can name a port. Abstract unix names made of it are free too.
class HeldPort {
 public:
  HeldPort() : socket_(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in6 address = anyAddress6(0);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    number_ = portOf(socket_.get());
  }

  [[nodiscard]] std::uint32_t number() const { return number_; }
  // From now on nobody else can bind the port.
  void occupy() { EXPECT_EQ(listen(socket_.get(), 1), 0); }

 private:
  UniqueFd socket_;
  std::uint32_t number_ = 0;
};

inline UniqueFd connectTo(const sockaddr* address, socklen_t length) {
  UniqueFd socket(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(socket.get(), address, length) != 0) socket.reset();
  return socket;
}

inline UniqueFd connectIPv4(std::uint32_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  storeBe16(reinterpret_cast<std::uint8_t*>(&address.sin_port), static_cast<std::uint16_t>(port));
  storeBe32(reinterpret_cast<std::uint8_t*>(&address.sin_addr), 0x7F000001);
  return connectTo(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

inline UniqueFd connectIPv6(std::uint32_t port) {
  sockaddr_in6 address = anyAddress6(port);
  address.sin6_addr = in6addr_loopback;
  return connectTo(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// The name of a server's unix listener, with the NULs that belong to it.
inline sockaddr_un unixName(std::uint32_t port) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = "www-unix" + std::to_string(port);
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  return address;
}

inline UniqueFd connectUnix(std::uint32_t port) {
  const sockaddr_un address = unixName(port);
  return connectTo(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// What the peer sends until it closes; "(silence)" at the end when it did neither for too long.
inline std::string readToEnd(int socket) {
  std::string text;
  char buffer[4096];
  for (;;) {
    pollfd entry{socket, POLLIN, 0};
    if (poll(&entry, 1, 5000) != 1) return text + "(silence)";
    const ssize_t n = read(socket, buffer, sizeof buffer);
    if (n <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(n));
  }
}

// Whether the peer still holds its end open, without anything to read.
inline bool stillOpen(int socket) {
  char c = 0;
  return recv(socket, &c, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

inline bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

inline std::size_t openDescriptors() {
  DIR* directory = opendir("/proc/self/fd");
  std::size_t count = 0;
  while (readdir(directory) != nullptr)
    ++count;
  closedir(directory);
  return count;
}

}  // namespace core_test
