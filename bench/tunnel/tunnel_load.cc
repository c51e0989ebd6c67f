// The client of the tunnel's benchmarks.
//
//   tunnel_load calls PORT CONNECTIONS COUNT   relayed calls in the JSON form; prints calls per second
//   tunnel_load bare PORT CONNECTIONS COUNT    the same requests, to something that only answers
//   tunnel_load put PORT NAME MEGABYTES        a file by "put"; prints MB per second
//   tunnel_load upload PORT NAME MEGABYTES     a file by a form

#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

#include "bench/bus/bus_socket.h"
#include "jsproxy/session_crypto.h"
#include "jsproxy/text_code.h"
#include "platform/byte_order.h"

namespace {

constexpr std::uint32_t warmUpCalls = 1000;
constexpr std::string_view boundary = "----bench";

double now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

UniqueFd connectToPort(std::uint32_t port) {
  UniqueFd made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int one = 1;
  setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("connect");
  return made;
}

// Takes one response; its body, and what was read of the next one stays in `held`.
std::string readResponse(int socket, std::string_view wanted) {
  std::string held;
  std::array<std::uint8_t, 65536> space;
  std::size_t headEnd = 0;
  while ((headEnd = held.find("\r\n\r\n")) == std::string::npos || held.size() < headEnd + 4) {
    const std::size_t n = readSome(socket, space);
    if (n == 0) fail("the server ended the connection");
    held.append(reinterpret_cast<const char*>(space.data()), n);
  }
  if (!held.starts_with(wanted)) {
    std::fprintf(stderr, "%s\n", held.substr(0, held.find('\r')).c_str());
    fail("the server's answer");
  }
  constexpr std::string_view field = "Content-Length: ";
  const std::size_t at = held.find(field);
  std::size_t length = 0;
  std::from_chars(held.data() + at + field.size(), held.data() + headEnd, length);
  while (held.size() < headEnd + 4 + length) {
    const std::size_t n = readSome(socket, space);
    if (n == 0) fail("the server ended the connection");
    held.append(reinterpret_cast<const char*>(space.data()), n);
  }
  return held.substr(headEnd + 4, length);
}

void send(int socket, std::string_view text) {
  writeAll(socket, asBytes(text));
}

// A browser's end of a session that has logged in.
class Session {
 public:
  explicit Session(std::uint32_t port) : socket_(connectToPort(port)), sendCipher_(exchange()) {
    request(frame("{s1:'admin',s3:'x'}"));
  }

  std::string frame(std::string_view payload) {
    std::string bytes(8, '\0');
    storeBe32(asWritableBytes(bytes).data(), id_);
    storeBe32(asWritableBytes(bytes).data() + 4, position_);
    bytes.append(payload).append(8, ' ');
    sendCipher_.encrypt(asWritableBytes(bytes).subspan(8));
    position_ += static_cast<std::uint32_t>(payload.size() + 8);
    return bytes;
  }

  // The frame with a file's name as a query.
  std::string query(std::string_view name) {
    std::string out = "?";
    for (const char c : bytesToText(asBytes(frame(name)))) {
      std::array<char, 4> escaped;
      std::snprintf(escaped.data(), escaped.size(), "%%%02x", static_cast<unsigned>(static_cast<std::uint8_t>(c)));
      out.append(escaped.data(), 3);
    }
    return out;
  }

  static std::string post(std::string_view bytes) {
    const std::string body = bytesToText(asBytes(bytes));
    return "POST /jsproxy HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/plain\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
  }

 private:
  std::string request(std::string_view bytes) {
    send(socket_.get(), post(bytes));
    return readResponse(socket_.get(), "HTTP/1.1 200");
  }

  RC4 exchange() {
    const Scalar scalar = randomScalar();
    PublicValue nine{};
    nine.back() = 9;
    const PublicValue own = exchangeKeys(scalar, nine).publicValue;
    std::string answer;
    textToBytes(request(std::string(8, '\0').append(own.begin(), own.end())), answer);
    if (answer.size() != 40) fail("the key exchange");
    id_ = loadBe32(asBytes(answer).data());
    return startCipher(deriveSessionKey(exchangeKeys(scalar, asBytes(answer).subspan<8, 32>()).master, false));
  }

  UniqueFd socket_;
  std::uint32_t id_ = 0;
  std::uint32_t position_ = 1;
  RC4 sendCipher_;
};

// Keeps one request under way on each of some connections.
class Calls {
 public:
  Calls(std::uint32_t port, std::uint32_t connections, Session* session)
      : session_(session), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    for (std::uint32_t i = 0; i < connections; ++i) {
      sockets_.push_back(connectToPort(port));
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u32 = i;
      if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, sockets_.back().get(), &event) != 0) fail("epoll_ctl");
    }
  }

  void run(std::uint32_t count) {
    std::uint32_t unsent = count;
    for (std::size_t i = 0; i < sockets_.size() && unsent > 0; ++i, --unsent)
      ask(i);
    std::array<epoll_event, 64> events;
    while (count > 0) {
      const int ready = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < ready; ++i) {
        const std::size_t index = events[static_cast<std::size_t>(i)].data.u32;
        (void)readResponse(sockets_[index].get(), "HTTP/1.1 200");
        --count;
        if (unsent == 0) continue;
        ask(index);
        --unsent;
      }
    }
  }

 private:
  static constexpr std::string_view call =
      "{Uff0001:[24,1],uff0007:5,s1:'0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef'}";

  void ask(std::size_t index) {
    // Without a session the request looks the same.
    send(sockets_[index].get(),
         Session::post(session_ != nullptr ? session_->frame(call) : std::string(call) + "0123456789abcdef"));
  }

  Session* session_;
  UniqueFd epoll_;
  std::vector<UniqueFd> sockets_;
};

void measureCalls(std::uint32_t port, std::uint32_t connections, std::uint32_t count, bool bare) {
  std::optional<Session> session;
  if (!bare) session.emplace(port);
  Calls calls(port, connections, session ? &*session : nullptr);
  calls.run(warmUpCalls);
  const double begin = now();
  calls.run(count);
  std::printf("%.0f\n", count / (now() - begin));
}

void measureFile(std::uint32_t port, std::string_view name, std::uint32_t megabytes, bool isForm) {
  Session session(port);
  const std::string begin =
      isForm
          ? std::string("--").append(boundary).append("\r\nContent-Disposition: form-data; name=\"f\"; filename=\"") +
                std::string(name) + "\"\r\n\r\n"
          : "";
  const std::string end = isForm ? std::string("\r\n--").append(boundary).append("--\r\n") : "";
  const std::uint64_t size = std::uint64_t{megabytes} << 20;
  const UniqueFd socket = connectToPort(port);
  std::string head =
      std::string("POST /jsproxy/") + (isForm ? "upload" : "put") + session.query(name) +
      " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: " + std::to_string(begin.size() + size + end.size()) + "\r\n";
  if (isForm) head += std::string("Content-Type: multipart/form-data; boundary=").append(boundary).append("\r\n");
  const std::vector<std::uint8_t> block(1U << 20, 'x');
  const double started = now();
  send(socket.get(), head + "\r\n" + begin);
  for (std::uint32_t i = 0; i < megabytes; ++i)
    writeAll(socket.get(), block);
  send(socket.get(), end);
  (void)readResponse(socket.get(), isForm ? "HTTP/1.1 303" : "HTTP/1.1 200");
  std::printf("%.0f\n", static_cast<double>(size) / 1e6 / (now() - started));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) fail("usage: tunnel_load calls|bare|put|upload PORT CONNECTIONS|NAME COUNT|MEGABYTES");
  const std::string_view mode = argv[1];
  const std::uint32_t port = numberArgument(argv[2]);
  if (mode == "calls" || mode == "bare") {
    measureCalls(port, numberArgument(argv[3]), numberArgument(argv[4]), mode == "bare");
  } else {
    measureFile(port, argv[3], numberArgument(argv[4]), mode == "upload");
  }
  return 0;
}
