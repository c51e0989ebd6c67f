// Loads an https server of this machine from one thread.
//
//   tls_load PORT PATH CONNECTIONS SECONDS new|keep
//
// With "new" each request has a connection and a full handshake of its own; with "keep" the connections live on. Prints
// the requests that were answered, the bytes of their bodies and the seconds it took, or what failed.

#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "platform/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
  std::uint16_t port = 0;
  std::string request;
  bool keep = false;
};

struct Totals {
  std::uint64_t answers = 0;
  std::uint64_t bytes = 0;
  std::uint64_t failures = 0;
};

struct Free {
  void operator()(SSL* connection) const { SSL_free(connection); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};

// One connection, which begins again when it has ended.
class Client {
 public:
  Client(const Settings& settings, SSL_CTX& context, Totals& totals, int loop)
      : settings_(settings), context_(context), totals_(totals), loop_(loop) {}

  bool begin() {
    socket_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(settings_.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr generic{};
    std::memcpy(&generic, &address, sizeof address);
    ::connect(socket_.get(), &generic, sizeof address);
    ssl_.reset(SSL_new(&context_));
    SSL_set_fd(ssl_.get(), socket_.get());
    SSL_set_connect_state(ssl_.get());
    startAnswer();
    asked_ = false;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    event.data.ptr = this;
    return epoll_ctl(loop_, EPOLL_CTL_ADD, socket_.get(), &event) == 0;
  }

  void onReady() {
    if (!asked_ && !ask()) return;
    while (true) {
      std::size_t count = 0;
      if (SSL_read_ex(ssl_.get(), room().data(), room().size(), &count) != 1) return settle();
      if (!take(std::string_view(room().data(), count))) return;
    }
  }

 private:
  static std::array<char, 65536>& room() {
    static std::array<char, 65536> bytes;
    return bytes;
  }

  void startAnswer() {
    head_.clear();
    inBody_ = false;
    left_ = 0;
  }

  // True: the request is on its way.
  bool ask() {
    std::size_t count = 0;
    if (SSL_write_ex(ssl_.get(), settings_.request.data(), settings_.request.size(), &count) != 1) {
      settle();
      return false;
    }
    asked_ = true;
    return true;
  }

  // Waiting is all right; anything else is a failure, and the connection begins anew.
  void settle() {
    const int error = SSL_get_error(ssl_.get(), -1);
    ERR_clear_error();
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return;
    ++totals_.failures;
    begin();
  }

  // False: the connection is another one now.
  bool take(std::string_view bytes) {
    if (!inBody_) {
      head_.append(bytes);
      const std::size_t end = head_.find("\r\n\r\n");
      if (end == std::string::npos) return true;
      left_ = bodyLength();
      bytes = std::string_view(head_).substr(end + 4);
      inBody_ = true;
    }
    left_ -= bytes.size();
    totals_.bytes += bytes.size();
    return left_ > 0 || answered();
  }

  std::size_t bodyLength() const {
    constexpr std::string_view name = "\r\nContent-Length: ";
    const std::size_t at = head_.find(name);
    std::size_t length = 0;
    if (at != std::string::npos) {
      std::from_chars(head_.data() + at + name.size(), head_.data() + head_.size(), length);
    }
    return length;
  }

  bool answered() {
    ++totals_.answers;
    if (settings_.keep) {
      startAnswer();
      asked_ = false;
      return ask();
    }
    SSL_shutdown(ssl_.get());
    begin();
    return false;
  }

  const Settings& settings_;
  SSL_CTX& context_;
  Totals& totals_;
  int loop_;
  UniqueFd socket_;
  std::unique_ptr<SSL, Free> ssl_;
  std::string head_;
  bool asked_ = false;
  bool inBody_ = false;
  std::size_t left_ = 0;
};

template <typename Number>
Number number(const char* text) {
  Number value = 0;
  std::from_chars(text, text + std::strlen(text), value);
  return value;
}

void run(std::vector<std::unique_ptr<Client>>& clients, int loop, Clock::time_point until) {
  for (const auto& client : clients)
    client->begin();
  std::array<epoll_event, 64> events;
  while (Clock::now() < until) {
    const int count = epoll_wait(loop, events.data(), static_cast<int>(events.size()), 100);
    for (int i = 0; i < count; ++i)
      static_cast<Client*>(events[static_cast<std::size_t>(i)].data.ptr)->onReady();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  Settings settings;
  settings.port = number<std::uint16_t>(argv[1]);
  settings.keep = std::strcmp(argv[5], "keep") == 0;
  settings.request = std::string("GET ") + argv[2] +
                     " HTTP/1.1\r\nHost: localhost\r\nConnection: " + (settings.keep ? "keep-alive" : "close") +
                     "\r\n\r\n";
  const std::unique_ptr<SSL_CTX, Free> context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_read_ahead(context.get(), 1);
  const UniqueFd loop(epoll_create1(EPOLL_CLOEXEC));
  Totals totals;
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = number<int>(argv[3]); i > 0; --i)
    clients.push_back(std::make_unique<Client>(settings, *context, totals, loop.get()));
  const auto began = Clock::now();
  run(clients, loop.get(), began + std::chrono::milliseconds(number<int>(argv[4]) * 1000));
  const std::chrono::duration<double> took = Clock::now() - began;
  std::printf("%llu %llu %.6f %llu\n", static_cast<unsigned long long>(totals.answers),
              static_cast<unsigned long long>(totals.bytes), took.count(),
              static_cast<unsigned long long>(totals.failures));
  return totals.bytes > 0 ? 0 : 1;
}
