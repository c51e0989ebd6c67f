#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <poll.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "fuzz/require.h"
#include "http/connection.h"
#include "platform/web/servlet.h"
#include "tests/fakes/fake_runner.h"

// A connection of the engine under a loop that the input turns: bytes in pieces, time that passes, a peer that stops
// reading, ends its direction or is gone, a servlet that answers at once, after a body, later, or never. Between the
// steps a connection that lives is watched, timed and counted as its state says; each request ends once, and no piece
// of a body comes outside of its request or behind the last one.
//
// An input is a list of steps, each a byte:
//
//     0..127  the peer sends the so many bytes, and one, that follow
//   128..159  the kernel's word on the socket is told, at the most 1 to 32 times
//   160..191  time passes, 125 ms to 4 s
//   192..194  the servlet that waits answers: a text, an error, a text that no socket holds
//   195, 196  the peer ends its direction; it is gone
//   197, 198  the peer reads everything; it reads a little
//   199, 200  the runner tells of a hang-up; somebody closes the connection
//   201..203  another connection takes its place: a plain one, one of the local listener, one that spoke TLS
//   others    nothing

namespace {

using State = Connection::State;

constexpr std::size_t largeText = 40000;

// Answers by the target's first letter: "e" an error, "f" a file, "l" later, "d" a body and later, "p" a body and then
// a text, "o" the first piece of one and then a text; anything else a text. Bodies come in pieces of as many bytes as
// the target's second letter is behind "a".
class Scripted : public Servlet {
 public:
  Scripted() { setPath("/"); }
  bool isDirectory() override { return true; }

  void doMethod(Request& request, Response& response) override {
    require(response_ == nullptr);
    response_ = &response;
    last_ = false;
    request.onRequestEnd = [this] {
      require(response_ != nullptr);
      response_ = nullptr;
    };
    answer(request, response);
  }

  [[nodiscard]] bool asked() const { return response_ != nullptr; }

  void complete(int status, std::string text) {
    if (response_ == nullptr || !response_->onComplete) return;
    Response& response = *response_;
    if (status >= 300) {
      response.sendError(status, text);
    } else {
      response.send(std::move(text));
    }
    const auto completed = std::exchange(response.onComplete, nullptr);
    completed();
  }

 private:
  void answer(Request& request, Response& response) {
    const char letter = request.pathInfo.empty() ? 't' : request.pathInfo[0];
    const bool post = request.method == Method::post;
    if (letter == 'e') return response.sendError(404, "");
    if (letter == 'f') return response.sendFile("/proc/self/exe", "", false);
    if (letter == 'l') return;
    if (!post || (letter != 'd' && letter != 'p' && letter != 'o')) return response.send("text");
    request.bodyChunk = request.pathInfo.size() > 1 ? request.pathInfo[1] - 'a' : 0;
    request.bodyConsumer = [this, letter, &response](std::string_view piece, bool last) {
      require(response_ == &response && !last_);
      last_ = last;
      sum_ += piece.size();
      if (letter == 'o' || (letter == 'p' && last)) response.send("body");
    };
  }

  Response* response_ = nullptr;  // of the request that has not ended
  bool last_ = false;
  std::size_t sum_ = 0;
};

class Harness {
 public:
  Harness() { site_.servlets.push_back(&servlet_); }
  ~Harness() {
    end();
    require(openConnections == 0 && runner_.watchedCount() == 0 && !servlet_.asked());
    endAllConnections();
  }

  void begin(bool tls, bool local) {
    end();
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    constexpr int little = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
    peer_ = UniqueFd(ends[1]);
    runner_.atHand = tn::writable;  // as it is with a new socket
    fd_ = ends[0];
    Connection& made = createConnection(site_, UniqueFd(ends[0]), tls, local, runner_);
    connection_ = &made;
    require(runner_.addNonBlocking(fd_, tn::readable,
                                   [&made](int fd, unsigned events) { made.onSocketEvent(fd, events); }));
    made.beginRequest();
  }

  // Takes one step; returns how many bytes it used.
  std::size_t step(std::span<const std::uint8_t> input) {
    const unsigned code = input[0];
    if (code < 128) {
      const std::size_t count = std::min<std::size_t>(code + 1, input.size() - 1);
      send(input.subspan(1, count));
      return 1 + count;
    }
    if (code < 160) {
      for (unsigned left = code - 127; left != 0 && tell(); --left)
        check();
    } else if (code < 192) {
      runner_.advance((code - 159) * 125);
    } else {
      rare(code);
    }
    check();
    return 1;
  }

 private:
  [[nodiscard]] static bool alive() { return openConnections != 0; }

  void rare(unsigned code) {
    switch (code) {
      case 192:
        return servlet_.complete(200, "late");
      case 193:
        return servlet_.complete(502, "");
      case 194:
        return servlet_.complete(200, std::string(largeText, 'x'));
      case 195:
        shutdown(peer_.get(), SHUT_WR);
        return;
      case 196:
        return peer_.reset();
      case 197:
        return read(SIZE_MAX);
      case 198:
        return read(100);
      case 199:
        runner_.ready(fd_, tn::hangUp);
        return;
      case 200:
        if (alive()) connection_->close();
        return;
      case 201:
      case 202:
      case 203:
        return begin(code == 203, code == 202);
      case 204:
        runner_.atHand ^= tn::writable;
        return;
      default:
        return;
    }
  }

  void send(std::span<const std::uint8_t> bytes) const {
    (void)!::send(peer_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  void read(std::size_t limit) const {
    std::array<char, 65536> part;
    while (limit != 0) {
      const ssize_t count = recv(peer_.get(), part.data(), std::min(part.size(), limit), MSG_DONTWAIT);
      if (count <= 0) return;
      limit -= static_cast<std::size_t>(count);
    }
  }

  // False: the kernel says nothing that the connection waits for.
  bool tell() {
    const auto mask = runner_.mask(fd_);
    if (!alive() || !mask) return false;
    pollfd entry{fd_, 0, 0};
    if ((*mask & tn::readable) != 0) entry.events |= POLLIN;
    if ((*mask & tn::writable) != 0) entry.events |= POLLOUT;
    poll(&entry, 1, 0);
    unsigned bits = 0;
    if ((entry.revents & (POLLIN | POLLERR)) != 0) bits |= tn::readable;
    if ((entry.revents & (POLLOUT | POLLERR)) != 0) bits |= tn::writable;
    return bits != 0 && runner_.ready(fd_, bits);
  }

  void check() const {
    if (!alive()) {
      require(runner_.watchedCount() == 0 && !servlet_.asked());
      return;
    }
    require(openConnections == 1);
    const auto mask = runner_.mask(fd_);
    switch (connection_->state()) {
      case State::ReadForward:
      case State::ReadRequestLine:
      case State::ReadHeaders:
        require(mask == tn::readable && timed() && !servlet_.asked());
        return;
      case State::ReadBody:
        require(mask == tn::readable && timed() && servlet_.asked());
        return;
      case State::Writing:
        require(mask == tn::writable && timed());
        return;
      case State::Dispatched:
      case State::Closed:
        require(!mask && servlet_.asked());
        return;
      case State::Ended:
        require(false);
    }
  }

  // A timer runs that ends a connection without an event: at the latest after the header limit.
  [[nodiscard]] bool timed() const {
    const auto next = const_cast<tn::fakes::FakeRunner&>(runner_).timers().nextDeadline();
    const auto now = const_cast<tn::fakes::FakeRunner&>(runner_).timers().now();
    return next && *next - now <= std::chrono::milliseconds(Connection::headerLimitMs);
  }

  // Every way of ending it leaves nothing, also of one whose servlet has to answer first.
  void end() {
    peer_.reset();
    if (alive()) connection_->close();
    servlet_.complete(200, "");
    require(!alive());
  }

  tn::fakes::FakeRunner runner_;
  Site site_;
  Scripted servlet_;
  Connection* connection_ = nullptr;  // dangles once it has ended
  UniqueFd peer_;
  int fd_ = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  signal(SIGPIPE, SIG_IGN);
  Harness harness;
  harness.begin(false, false);
  for (std::span<const std::uint8_t> input(data, size); !input.empty();)
    input = input.subspan(harness.step(input));
  return 0;
}
