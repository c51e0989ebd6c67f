// The floor that a server is measured against: an epoll loop that reads whatever comes and writes one fixed response,
// without parsing, files, timers or a log.
//
//   bare_loop PORT FILE keep|close|asking
//
// The response carries FILE's bytes. With "close" each connection is closed after one response. "asking" is the same,
// but each connection is asked for what a server has to know of it here: both addresses and the original destination.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace {

std::string readFile(const char* path) {
  std::string bytes;
  std::FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return bytes;
  std::array<char, 65536> chunk;
  std::size_t n = 0;
  while ((n = std::fread(chunk.data(), 1, chunk.size(), file)) > 0)
    bytes.append(chunk.data(), n);
  std::fclose(file);
  return bytes;
}

UniqueFd listenOn(std::uint16_t port) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int one = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr generic{};
  std::memcpy(&generic, &address, sizeof address);
  if (bind(fd.get(), &generic, sizeof address) != 0 || listen(fd.get(), 1024) != 0) fd.reset();
  return fd;
}

void watch(int loop, int fd) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLOUT | EPOLLET;
  event.data.fd = fd;
  epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event);
}

void ask(int fd) {
  constexpr int originalDestination = 80;
  sockaddr_storage address{};
  sockaddr generic{};
  socklen_t length = sizeof generic;
  getsockname(fd, &generic, &length);
  length = sizeof generic;
  getpeername(fd, &generic, &length);
  length = sizeof address;
  getsockopt(fd, SOL_IP, originalDestination, &address, &length);
}

void acceptAll(int loop, int listener, bool asking) {
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    if (asking) ask(fd);
    watch(loop, fd);
  }
}

// What is left of the response that a connection is being sent; nothing while it waits for a request.
using Left = std::map<int, std::string_view>;

void finish(int fd, Left& left, bool keep) {
  left.erase(fd);
  if (!keep) close(fd);
}

void send(int fd, std::string_view bytes, Left& left, bool keep) {
  const ssize_t n = write(fd, bytes.data(), bytes.size());
  if (n < 0 && errno != EAGAIN) {
    left.erase(fd);
    close(fd);
    return;
  }
  bytes.remove_prefix(n < 0 ? 0 : static_cast<std::size_t>(n));
  if (bytes.empty()) {
    finish(fd, left, keep);
  } else {
    left[fd] = bytes;
  }
}

void serve(int fd, const std::string& response, Left& left, bool keep) {
  if (const auto waiting = left.empty() ? left.end() : left.find(fd); waiting != left.end()) {
    send(fd, waiting->second, left, keep);
    return;
  }
  std::array<char, 4096> request;
  const ssize_t n = read(fd, request.data(), request.size());
  if (n == 0) close(fd);
  if (n > 0) send(fd, response, left, keep);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  // The load ends in the middle of responses.
  std::signal(SIGPIPE, SIG_IGN);
  const bool keep = std::strcmp(argv[3], "keep") == 0;
  const bool asking = std::strcmp(argv[3], "asking") == 0;
  const std::string body = readFile(argv[2]);
  const std::string response =
      std::string("HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nConnection: ") +
      (keep ? "Keep-Alive" : "close") + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  const UniqueFd listener = listenOn(static_cast<std::uint16_t>(std::atoi(argv[1])));
  if (!listener) return 1;
  const UniqueFd loop(epoll_create1(EPOLL_CLOEXEC));
  watch(loop.get(), listener.get());
  Left left;
  std::array<epoll_event, 64> events;
  for (;;) {
    const int count = epoll_wait(loop.get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      const int fd = events[static_cast<std::size_t>(i)].data.fd;
      if (fd == listener.get()) {
        acceptAll(loop.get(), fd, asking);
      } else {
        serve(fd, response, left, keep);
      }
    }
  }
}
