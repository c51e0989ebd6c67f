// One measurement of the benchmark of forwarded requests: the same request goes to the same service, over HTTP through
// the remote servlet, or as a message from a bare client of the bus. Printed: round trips per second.
//
//   remote_round http PORT OUTSTANDING ROUNDTRIPS
//   remote_round bus SOCKET OUTSTANDING ROUNDTRIPS
//
// Over HTTP there are OUTSTANDING connections that are kept, each with one request under way.

#include <array>
#include <cstdio>
#include <ctime>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

#include "bench/bus/bus_socket.h"
#include "platform/bus/frame.h"
#include "platform/bus/looper.h"
#include "platform/byte_order.h"
#include "platform/web/request.h"

namespace {

constexpr std::uint32_t serviceId = 200;
constexpr std::uint32_t serviceHandler = 7;
constexpr std::uint32_t forwardedRequest = 0x50001;
constexpr std::uint32_t warmUpTrips = 2000;

// As a browser sends it.
constexpr std::array<std::string_view, 5> headers{
    "Host: 127.0.0.1:8080", "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0",
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8", "Accept-Language: en-US,en;q=0.5",
    "Accept-Encoding: gzip, deflate"};
constexpr std::string_view requestLine = "GET /r/page HTTP/1.1";

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

class Load {
 public:
  Load() = default;
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;
  virtual ~Load() = default;
  virtual void run(std::uint32_t roundTrips) = 0;
};

// ---- Over HTTP

class HttpLoad : public Load {
 public:
  HttpLoad(std::uint32_t port, std::uint32_t connections) : epoll_(epoll_create1(0)) {
    request_.append(requestLine).append("\r\n");
    for (const std::string_view header : headers)
      request_.append(header).append("\r\n");
    request_.append("\r\n");
    for (std::uint32_t i = 0; i < connections; ++i) {
      sockets_.push_back(connectToPort(port));
      // The listen queue holds ten.
      writeAll(sockets_.back().get(), bytesOf(request_));
      const std::size_t length = readSome(sockets_.back().get(), space_);
      if (responseBytes_ != 0 && length != responseBytes_) fail("responses differ");
      responseBytes_ = length;
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u32 = i;
      if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, sockets_.back().get(), &event) != 0) fail("epoll_ctl");
    }
  }

  void run(std::uint32_t roundTrips) override {
    std::uint32_t unsent = roundTrips;
    for (std::size_t i = 0; i < sockets_.size() && unsent > 0; ++i, --unsent)
      writeAll(sockets_[i].get(), bytesOf(request_));
    std::array<epoll_event, 64> events{};
    for (std::uint32_t done = 0; done < roundTrips;) {
      const int count = epoll_wait(epoll_.get(), events.data(), events.size(), -1);
      for (int i = 0; i < count; ++i) {
        const UniqueFd& socket = sockets_[events[static_cast<std::size_t>(i)].data.u32];
        // Such a response always comes in one piece.
        if (readSome(socket.get(), space_) != responseBytes_) fail("a response of another length");
        ++done;
        if (unsent == 0) continue;
        --unsent;
        writeAll(socket.get(), bytesOf(request_));
      }
    }
  }

 private:
  static UniqueFd connectToPort(std::uint32_t port) {
    UniqueFd made(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    storeBe16(reinterpret_cast<std::uint8_t*>(&address.sin_port), static_cast<std::uint16_t>(port));
    storeBe32(reinterpret_cast<std::uint8_t*>(&address.sin_addr), INADDR_LOOPBACK);
    if (connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("connect");
    const int on = 1;
    setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return made;
  }

  UniqueFd epoll_;
  std::string request_;
  std::size_t responseBytes_ = 0;
  std::vector<UniqueFd> sockets_;
  std::vector<std::uint8_t> space_ = std::vector<std::uint8_t>(readBytes);
};

// ---- Over the bus

// The same request as the server would forward it.
tn::message forwarded() {
  Request request(false, false);
  bool good = request.parseStatusLine(requestLine);
  for (const std::string_view header : headers)
    good = good && request.headers.parseHeaderLine(header);
  if (!good) fail("the request");
  request.pathInfo = "page";
  request.pathInfoSet = true;
  request.peerPort = 40000;
  request.localPort = 8080;
  tn::message msg;
  request.store(msg);
  msg.insert_vector(tn::field::destination, std::array{serviceHandler});
  msg.insert_vector(tn::field::sender, std::array{0U});
  msg.insert(tn::field::command, forwardedRequest);
  msg.insert(tn::field::requestNumber, 1000000);
  return msg;
}

class BusLoad : public Load {
 public:
  BusLoad(const char* path, std::uint32_t outstanding) : socket_(connectTo(path)), outstanding_(outstanding) {
    tn::message join;
    join.insert(tn::u32_id(1), tn::control::join);
    appendFrame(tn::brokerId, 2, join);
    writeAll(socket_.get(), frame_);
    takeFrame();
    frame_.clear();
    appendFrame(serviceId, 0, forwarded());
    writeAll(socket_.get(), frame_);
    responseBytes_ = takeFrame();
    for (std::uint32_t i = 0; i < outstanding_; ++i)
      frames_.insert(frames_.end(), frame_.begin(), frame_.end());
  }

  void run(std::uint32_t roundTrips) override {
    std::size_t unsent = roundTrips - send(std::min(outstanding_, roundTrips));
    std::size_t bytes = 0;
    while (bytes < std::size_t{roundTrips} * responseBytes_) {
      const std::size_t before = bytes / responseBytes_;
      const std::size_t count = readSome(socket_.get(), space_);
      if (count == 0) fail("the broker ended");
      bytes += count;
      unsent -= send(std::min(bytes / responseBytes_ - before, unsent));
    }
  }

 private:
  void appendFrame(std::uint32_t peer, std::uint32_t kind, const tn::message& msg) {
    const auto payload = msg.flattened();
    std::array<std::uint8_t, tn::frameHeaderBytes> head{};
    tn::storeFrameHeader(head.data(), {static_cast<std::uint32_t>(payload.size()), peer, kind});
    frame_.insert(frame_.end(), head.begin(), head.end());
    frame_.insert(frame_.end(), payload.begin(), payload.end());
  }
  // Reads one frame; its length.
  std::size_t takeFrame() {
    std::array<std::uint8_t, tn::frameHeaderBytes> head{};
    readAll(socket_.get(), head);
    const tn::FrameHeader header = tn::loadFrameHeader(head.data());
    if (header.kind == 1) fail("the service is not there");
    space_.resize(std::max<std::size_t>(space_.size(), header.length));
    readAll(socket_.get(), std::span(space_).first(header.length));
    return head.size() + header.length;
  }
  std::size_t send(std::size_t count) {
    writeAll(socket_.get(), std::span(frames_).first(count * frame_.size()));
    return count;
  }

  UniqueFd socket_;
  std::uint32_t outstanding_;
  std::vector<std::uint8_t> frame_;   // one request
  std::vector<std::uint8_t> frames_;  // as many as are under way
  std::size_t responseBytes_ = 0;
  std::vector<std::uint8_t> space_ = std::vector<std::uint8_t>(readBytes);
};

double secondsNow() {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) fail("clock_gettime");
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void measure(Load& load, std::uint32_t roundTrips) {
  load.run(warmUpTrips);
  const double begun = secondsNow();
  load.run(roundTrips);
  std::printf("%.0f\n", roundTrips / (secondsNow() - begun));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) fail("usage: remote_round http|bus PORT|SOCKET OUTSTANDING ROUNDTRIPS");
  const std::uint32_t outstanding = numberArgument(argv[3]);
  if (std::string_view(argv[1]) == "http") {
    HttpLoad load(numberArgument(argv[2]), outstanding);
    measure(load, numberArgument(argv[4]));
  } else {
    BusLoad load(argv[2], outstanding);
    measure(load, numberArgument(argv[4]));
  }
  return 0;
}
