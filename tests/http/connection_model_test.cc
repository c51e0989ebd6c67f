// The engine beside a model of it that is written for nothing but to be plain: no memory is handed round, nothing grows
// only when needed, every rule stands once. Both get the same bytes in the same pieces and must tell the same story.
#include <algorithm>
#include <random>

#include "tests/http/connection_fixture.h"

namespace {

// Each request that reached the servlet, each piece of a body, each response.
using Story = std::vector<std::string>;

// What the servlet of these tests does with a POST, by its target: "/take<N>" wants the body in pieces of N bytes (as
// it comes when N is 0) and answers after the last, "/early<N>" after the first. All else is answered at once.
struct Wish {
  bool body = false;
  bool early = false;
  std::size_t piece = 0;
};

Wish wishOf(const Request& request) {
  const std::string& target = request.uri;
  if (request.method == Method::post && target.starts_with("/take")) {
    return {true, false, static_cast<std::size_t>(std::atoi(target.c_str() + 5))};
  }
  if (request.method == Method::post && target.starts_with("/early")) {
    return {true, true, static_cast<std::size_t>(std::atoi(target.c_str() + 6))};
  }
  return {};
}

std::string pieceText(std::string_view piece, bool last) {
  return "piece " + std::string(piece) + (last ? ", the last" : "");
}

std::string answerText(const std::string& status, const std::string& connection) {
  return "answer " + status + " " + connection;
}

class Model {
 public:
  explicit Model(bool forwarded) : forwarded_(forwarded) { begin(); }

  // Everything that follows from these bytes.
  void take(std::string_view bytes) {
    incoming_ += bytes;
    while (!ended && !incoming_.empty()) {
      readOnce();
      if (status_ != 0) answer();
    }
  }

  Story story;
  bool ended = false;

 private:
  enum class State : std::uint8_t { forward, requestLine, headers, body };

  void begin() {
    state_ = forwarded_ ? State::forward : State::requestLine;
    held_.clear();
    room_ = 512;
    headerBytes_ = 0;
    received_ = 0;
    length_ = 0;
    status_ = 0;
    keepAlivePermitted_ = true;
    request_.reset();
  }

  void readOnce() {
    const std::size_t count = std::min(room_ - held_.size(), incoming_.size());
    held_ += incoming_.substr(0, count);
    incoming_.erase(0, count);
    switch (state_) {
      case State::forward:
        if (held_.size() < 88) return;
        held_.erase(0, 88);
        room_ -= 88;
        state_ = State::requestLine;
        readLines();
        return;
      case State::requestLine:
      case State::headers:
        readLines();
        return;
      case State::body:
        pump();
        return;
    }
  }

  void readLines() {
    std::size_t start = 0;
    for (std::size_t end = held_.find('\n'); end != std::string::npos; end = held_.find('\n', start)) {
      std::string line = held_.substr(start, end - start);
      if (line.ends_with('\r')) line.pop_back();
      start = end + 1;
      if (state_ == State::headers && line.empty()) return dispatch(start, true);
      headerBytes_ += line.size();
      if (!accepts(line)) return refuse();
      if (request_.version == version09) return dispatch(start, false);
      state_ = State::headers;
    }
    if (held_.size() > 4095) return refuse();
    if (room_ - held_.size() <= 127) room_ *= 2;
    held_.erase(0, start);
  }

  bool accepts(const std::string& line) {
    if (state_ == State::requestLine) return request_.parseStatusLine(line);
    return headerBytes_ <= 16384 && request_.headers.parseHeaderLine(line);
  }

  void refuse() {
    status_ = request_.protocol == Protocol::unknown || request_.method == Method::unknown ? 503 : 400;
    keepAlivePermitted_ = false;
  }

  void dispatch(std::size_t bodyStart, bool hasHeaders) {
    held_.erase(0, bodyStart);
    std::uint32_t said = 0;
    const bool known = request_.headers.getHeader("content-length", &said);
    if (request_.method == Method::post) {
      length_ = known ? said : 0xFFFFFFFF;
    } else if (hasHeaders && said != 0) {
      keepAlivePermitted_ = false;  // nobody reads such a body
    }
    story.push_back("request " + request_.uri);
    wish_ = wishOf(request_);
    if (!wish_.body) {
      status_ = 200;
      return;
    }
    room_ = wish_.piece == 0 ? 4096 : wish_.piece;
    state_ = State::body;
    pump();
  }

  // What lies behind the announced end is dropped.
  void pump() {
    held_ = held_.substr(0, length_ - received_);
    while (!held_.empty() && (held_.size() >= room_ || wish_.piece == 0)) {
      const std::string piece = held_.substr(0, room_);
      held_.erase(0, piece.size());
      received_ += static_cast<std::uint32_t>(piece.size());
      story.push_back(pieceText(piece, received_ == length_));
      if (received_ == length_ || wish_.early) {
        status_ = 200;
        return;
      }
    }
  }

  void answer() {
    const bool wanted = request_.version <= version10 ? request_.headers.headerHasToken("connection", "keep-alive")
                                                      : !request_.headers.headerHasToken("connection", "close");
    ended = !wanted || !keepAlivePermitted_ || received_ != length_;
    story.push_back(answerText(std::to_string(status_), ended ? "close" : "Keep-Alive"));
    begin();
  }

  const bool forwarded_;
  std::string incoming_;  // in the socket
  State state_ = State::requestLine;
  std::string held_;
  std::size_t room_ = 0;  // for held bytes, in all
  std::size_t headerBytes_ = 0;
  std::uint32_t received_ = 0;
  std::uint32_t length_ = 0;
  int status_ = 0;  // 0: no answer yet
  bool keepAlivePermitted_ = true;
  Wish wish_;
  Request request_{false, false};
};

// Requests, well formed for the most part, with lines and bodies of sizes around every limit.
class Client {
 public:
  explicit Client(unsigned seed) : random_(seed) {}

  std::string request(bool forwarded) {
    std::string all = forwarded ? std::string(oneIn(20) ? 87 : 88, 'f') : "";
    all += pick({"GET", "HEAD", "POST", "POST", "POST", oneIn(10) ? "FETCH" : "GET"});
    all += " " + pick({"/text", "/take0", "/take1", "/take7", "/take4096", "/take9000", "/early0", "/early5"});
    if (oneIn(4)) all += "?" + std::string(size(), 'q');
    all += pick({" HTTP/1.1", " HTTP/1.1", " HTTP/1.1", " HTTP/1.0", oneIn(10) ? "" : " HTTP/1.1",
                 oneIn(20) ? " HTTP/2.0" : " HTTP/1.1"});
    all += lineEnd();
    const std::size_t length = oneIn(3) ? size() : below(40);
    if (!oneIn(4)) all += "Content-Length: " + std::to_string(length) + lineEnd();
    for (std::size_t fields = below(5); fields != 0; --fields)
      all += field() + lineEnd();
    all += lineEnd();
    std::string body(oneIn(8) ? below(length + 10) : length, '\0');
    for (char& c : body)
      c = static_cast<char>('a' + below(26));
    return all + body;
  }

  // A piece to be sent next, of up to `left` bytes.
  std::size_t piece(std::size_t left) { return oneIn(3) ? left : std::min(left, 1 + (oneIn(2) ? below(9) : size())); }
  bool oneIn(std::size_t n) { return below(n) == 0; }

 private:
  std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_); }
  std::size_t size() {
    const std::size_t around = std::array<std::size_t, 8>{1, 60, 128, 385, 512, 2000, 4096, 8192}[below(8)];
    return around + below(9) - std::min<std::size_t>(around, 4);
  }
  std::string pick(std::initializer_list<const char*> among) { return among.begin()[below(among.size())]; }
  std::string lineEnd() { return oneIn(5) ? "\n" : "\r\n"; }
  std::string field() {
    return pick({oneIn(5) ? "Connection: close" : "Connection: Keep-Alive", "A: b",
                 "C:", oneIn(40) ? "no colon" : "D: e"}) +
           (oneIn(3) ? ", " + std::string(size(), 'v') : "");
  }

  std::mt19937 random_;
};

class ConnectionModelTest : public ConnectionTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    addServlet(
        "/", [this](Request& request, Response& response) { serve(request, response); }, true);
  }

  void serve(Request& request, Response& response) {
    story.push_back("request " + request.uri);
    const Wish wish = wishOf(request);
    if (!wish.body) {
      response.send("text");
      return;
    }
    request.bodyChunk = static_cast<int>(wish.piece);
    request.bodyConsumer = [this, wish, &response](std::string_view piece, bool last) {
      if (piece.empty()) return;  // the end of the connection
      story.push_back(pieceText(piece, last));
      if (last || wish.early) response.send("text");
    };
  }

  // Adds what the client got to the story.
  void hear() {
    const std::string all = peer.receive();
    for (std::size_t at = all.find("HTTP/1.1 "); at != std::string::npos; at = all.find("HTTP/1.1 ", at + 1)) {
      const Answer answer = parseAnswer(all.substr(at));
      story.push_back(answerText(std::to_string(answer.status), answer.field("connection")));
    }
  }

  // One connection's life, as long as requests keep coming.
  void live(unsigned seed) {
    Client client(seed);
    Model model(GetParam());
    story.clear();
    open(false, GetParam());
    std::string bytes;
    for (int requests = 0; requests < 6 && !model.ended; ++requests) {
      bytes += client.request(GetParam());
      if (client.oneIn(4)) continue;  // goes together with the next one
      while (!bytes.empty() && !model.ended) {
        const std::string piece = bytes.substr(0, client.piece(bytes.size()));
        bytes.erase(0, piece.size());
        model.take(piece);
        peer.send(piece);
        while (step())
          hear();
        const auto [mine, models] = std::mismatch(story.begin(), story.end(), model.story.begin(), model.story.end());
        ASSERT_EQ(Story(mine, story.end()), Story(models, model.story.end()));
        ASSERT_EQ(ConnectionTest::live(), !model.ended);
      }
    }
    endAllConnections();
    answers += std::count_if(story.begin(), story.end(),
                             [](const std::string& line) { return line.starts_with("answer 200"); });
  }

  Story story;
  std::ptrdiff_t answers = 0;
};

INSTANTIATE_TEST_SUITE_P(All, ConnectionModelTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Forwarded" : "Plain"; });

TEST_P(ConnectionModelTest, TellsTheSameStory) {
  for (unsigned seed = 0; seed < 700; ++seed) {
    live(seed);
    ASSERT_FALSE(HasFatalFailure()) << "seed " << seed;
  }
  EXPECT_GT(answers, 300);  // enough of it has been about more than refusals
}

}  // namespace
