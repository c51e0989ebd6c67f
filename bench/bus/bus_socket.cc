#include "bench/bus/bus_socket.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

void fail(const char* what) {
  std::perror(what);
  std::_Exit(1);
}

namespace {

sockaddr_un addressOf(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string_view text(path);
  if (text.size() >= sizeof address.sun_path) fail("path");
  std::memcpy(address.sun_path, text.data(), text.size());
  return address;
}

UniqueFd makeSocket() {
  UniqueFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!made) fail("socket");
  return made;
}

}  // namespace

UniqueFd listenOn(const char* path) {
  unlink(path);
  UniqueFd listener = makeSocket();
  const sockaddr_un address = addressOf(path);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
  if (listen(listener.get(), 8) != 0) fail("listen");
  return listener;
}

UniqueFd connectTo(const char* path) {
  UniqueFd made = makeSocket();
  const sockaddr_un address = addressOf(path);
  for (int tries = 0; tries < 200; ++tries) {
    if (connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return made;
    usleep(10000);
  }
  fail("connect");
}

void writeAll(int socket, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t n = write(socket, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail("write");
    bytes = bytes.subspan(static_cast<std::size_t>(n));
  }
}

std::size_t readSome(int socket, std::span<std::uint8_t> space) {
  for (;;) {
    const ssize_t n = read(socket, space.data(), space.size());
    if (n >= 0) return static_cast<std::size_t>(n);
    if (errno != EINTR) fail("read");
  }
}

void readAll(int socket, std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const std::size_t n = readSome(socket, bytes);
    if (n == 0) fail("the other side ended");
    bytes = bytes.subspan(n);
  }
}

std::uint32_t numberArgument(const char* text) {
  const std::string_view digits(text);
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(digits.begin(), digits.end(), value);
  if (error != std::errc() || end != digits.end() || value == 0) {
    errno = EINVAL;
    fail(text);
  }
  return value;
}
