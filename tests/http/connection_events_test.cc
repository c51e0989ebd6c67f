// Several connections under random events: pieces of requests, time, hang-ups, completions that come late, peers that
// stop reading or go, closes from outside. Beside each stands what the table of its states says: in which state it is,
// what its socket is watched for, when which of its timers ends, and which of its callables have run. All of that is
// compared after each event. Memory that is used after its end is left to the sanitizers.
#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <random>

#include "tests/http/connection_fixture.h"

namespace {

using State = Connection::State;
using std::chrono::milliseconds;

constexpr std::size_t largeText = 200000;
constexpr std::size_t forwardBytes = 88;

// A request that reached the servlet.
struct Served {
  Response* response = nullptr;  // until it ends
  int ends = 0;
  int completions = 0;
  std::size_t body = 0;
  int lasts = 0;  // times that a last piece was announced
};

// What a client asks for.
struct Wish {
  enum class Kind : std::uint8_t { text, large, later, bodyText, bodyLater, bodyEarly, noVersion };
  Kind kind = Kind::text;
  bool keepAlive = true;
  std::string head;  // the forwarding header included
  std::string body;

  [[nodiscard]] bool wantsBody() const {
    return kind == Kind::bodyText || kind == Kind::bodyLater || kind == Kind::bodyEarly;
  }
};

// One connection and what it should be.
class Subject {
 public:
  enum class Life : std::uint8_t { reading, body, parked, writing, condemned, gone };

  Life life = Life::gone;
  Connection* connection = nullptr;  // while it lives
  Peer peer;
  int fd = -1;
  bool local = false;
  bool peerGone = false;  // its socket is closed
  bool sendingEnded = false;
  Wish wish;
  std::size_t sent = 0;  // bytes of the wish that the peer sent
  std::size_t read = 0;  // and that the connection has read
  std::shared_ptr<Served> served;
  std::optional<tn::Clock::time_point> headerEnd;
  std::optional<tn::Clock::time_point> idleEnd;

  [[nodiscard]] bool alive() const { return life != Life::gone; }
  [[nodiscard]] std::string text() const { return wish.head + wish.body; }
  [[nodiscard]] std::size_t bodyRead() const { return read - std::min(read, wish.head.size()); }

  [[nodiscard]] State expectedState() const {
    switch (life) {
      case Life::body:
        return State::ReadBody;
      case Life::parked:
        return State::Dispatched;
      case Life::writing:
        return State::Writing;
      case Life::condemned:
        return State::Closed;
      case Life::reading:
      case Life::gone:
        break;
    }
    const std::size_t before = local ? forwardBytes : 0;
    if (read < before) return State::ReadForward;
    const bool hasLine = wish.head.substr(before, read - before).find('\n') != std::string::npos;
    return hasLine ? State::ReadHeaders : State::ReadRequestLine;
  }
  [[nodiscard]] std::optional<unsigned> expectedMask() const {
    switch (life) {
      case Life::reading:
      case Life::body:
        return tn::readable;
      case Life::writing:
        return tn::writable;
      case Life::parked:
      case Life::condemned:
      case Life::gone:
        break;
    }
    return std::nullopt;
  }
};

class ConnectionEventsTest : public ConnectionTest {
 protected:
  using Life = Subject::Life;
  static constexpr std::size_t count = 4;

  void SetUp() override {
    captureErrors();  // peers that are written to after they went
    ConnectionTest::SetUp();
    addServlet(
        "/", [this](Request& request, Response& response) { serve(request, response); }, true);
  }
  void TearDown() override {
    for (Subject& subject : subjects)
      subject.peer.close();
    ConnectionTest::TearDown();
    takeErrors();
  }

  void run(unsigned seed, int events) {
    random.seed(seed);
    for (Subject& subject : subjects)
      open(subject);
    for (int i = 0; i < events && !HasFailure(); ++i) {
      if (oneIn(6)) {
        passTime(1 + below(oneIn(4) ? 2500 : 700));
      } else {
        act(subjects[below(count)]);
      }
      check();
    }
    for (Subject& subject : subjects) {
      close(subject);
      complete(subject);
    }
    check();
    EXPECT_EQ(openConnections, 0U);
  }

  // How often the rarest life was met.
  [[nodiscard]] int rarest() const { return *std::ranges::min_element(seen); }

 private:
  // ---- What happens

  void act(Subject& subject) {
    if (!subject.alive()) return open(subject);
    switch (below(24)) {
      case 0:
        return hangUp(subject);
      case 1:
        return close(subject);
      case 2:
        subject.peer.close();
        subject.peerGone = true;
        return;
      case 3:
        if (!subject.peerGone) subject.peer.endSending();
        subject.sendingEnded = true;
        return;
      case 4:
      case 5:
      case 6:
        return complete(subject);
      case 7:
      case 8:
        if (!subject.peerGone) subject.peer.receive(oneIn(2) ? SIZE_MAX : 5000);
        return;
      case 9:
      case 10:
      case 11:
      case 12:
      case 13:
      case 14:
        return sendSome(subject);
      default:
        return tell(subject);
    }
  }

  void open(Subject& subject) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    constexpr int little = 4096;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
    subject.local = oneIn(3);
    subject.peer = Peer(UniqueFd(ends[1]));
    subject.fd = ends[0];
    subject.peerGone = subject.sendingEnded = false;
    Connection& made = createConnection(site, UniqueFd(ends[0]), false, subject.local, runner);
    subject.connection = &made;
    ASSERT_TRUE(runner.addNonBlocking(ends[0], tn::readable,
                                      [&made](int socket, unsigned events) { made.onSocketEvent(socket, events); }));
    made.beginRequest();
    beginRequest(subject);
  }

  void sendSome(Subject& subject) {
    const std::string text = subject.text();
    if (subject.peerGone || subject.sendingEnded || subject.sent == text.size()) return;
    if (subject.life != Life::reading && subject.life != Life::body) return;
    const std::size_t size = std::min<std::size_t>(text.size() - subject.sent, oneIn(2) ? SIZE_MAX : 1 + below(60));
    subject.peer.send(text.substr(subject.sent, size));
    subject.sent += size;
  }

  // The kernel's word, as far as it is wanted.
  void tell(Subject& subject) {
    const auto mask = runner.mask(subject.fd);
    if (!mask) return;
    pollfd entry{subject.fd, static_cast<short>(*mask == tn::readable ? POLLIN : POLLOUT), 0};
    if (poll(&entry, 1, 0) == 0) return;
    const bool isRead = *mask == tn::readable;
    willBeTold(subject);
    if (isRead) willRead(subject);
    // Who has read a question may find that the answer can be written at once.
    runner.atHand = oneIn(2) ? tn::writable : 0;
    ASSERT_TRUE(runner.ready(subject.fd, *mask));
    if (subject.life == Life::writing) hasWritten(subject);
  }

  void hangUp(Subject& subject) {
    const bool watched = subject.expectedMask().has_value();
    if (watched) willEnd(subject);
    EXPECT_EQ(runner.ready(subject.fd, tn::hangUp), watched);
  }

  void close(Subject& subject) {
    if (!subject.alive()) return;
    Connection* const ending = subject.connection;
    willEnd(subject);
    ending->close();
  }

  // The servlet that was asked answers, where it still may.
  void complete(Subject& subject) {
    if (subject.life != Life::parked && subject.life != Life::condemned) return;
    Response& response = *subject.served->response;
    ++subject.served->completions;
    if (subject.life == Life::condemned) {
      subject.life = Life::gone;
      subject.headerEnd.reset();
    } else {
      willWrite(subject);
    }
    response.send("late");
    const auto completed = std::exchange(response.onComplete, nullptr);
    completed();
  }

  void passTime(std::size_t ms) {
    const auto until = runner.timers().now() + milliseconds(ms);
    for (Subject& subject : subjects) {
      const bool headEnds = subject.headerEnd && *subject.headerEnd <= until;
      const bool idleEnds = subject.idleEnd && *subject.idleEnd <= until;
      if (headEnds) subject.headerEnd.reset();
      if (headEnds || idleEnds) willEnd(subject);
    }
    runner.advance(static_cast<std::uint32_t>(ms));
  }

  // ---- What the table says of it

  void beginRequest(Subject& subject) {
    subject.life = Life::reading;
    subject.wish = wish(subject.local);
    subject.sent = subject.read = 0;
    subject.served = std::make_shared<Served>();
    asking = nullptr;
    subject.headerEnd = runner.timers().now() + milliseconds(Connection::headerLimitMs);
    willBeTold(subject);
  }

  void willBeTold(Subject& subject) { subject.idleEnd = runner.timers().now() + milliseconds(Connection::idleLimitMs); }

  // One that is parked is given up, and keeps the header timer if it has one: that finds nothing left to do.
  void willEnd(Subject& subject) {
    const bool keeps = subject.life == Life::parked || subject.life == Life::condemned;
    subject.life = keeps ? Life::condemned : Life::gone;
    subject.idleEnd.reset();
    if (!keeps) subject.headerEnd.reset();
  }

  void willWrite(Subject& subject) {
    subject.life = Life::writing;
    willBeTold(subject);
  }

  void willPark(Subject& subject) {
    subject.life = Life::parked;
    subject.idleEnd.reset();
  }

  // Everything that was sent is read at once, as it is less than there is room for.
  void willRead(Subject& subject) {
    if (subject.read == subject.sent) return willEnd(subject);
    subject.read = subject.sent;
    asking = &subject;
    if (subject.life == Life::reading && subject.read >= subject.wish.head.size()) willDispatch(subject);
    if (subject.life == Life::body) willTakeBody(subject);
  }

  void willDispatch(Subject& subject) {
    using Kind = Wish::Kind;
    const Kind kind = subject.wish.kind;
    if (kind != Kind::noVersion) subject.headerEnd.reset();
    if (subject.wish.wantsBody()) {
      subject.life = Life::body;
    } else if (kind == Kind::later || kind == Kind::noVersion) {
      willPark(subject);
    } else {
      willWrite(subject);
    }
  }

  void willTakeBody(Subject& subject) {
    const std::size_t got = subject.bodyRead();
    const bool all = got == subject.wish.body.size();
    if (subject.wish.kind == Wish::Kind::bodyEarly ? got == 0 : !all) return;
    if (subject.wish.kind == Wish::Kind::bodyLater) return willPark(subject);
    subject.wish.keepAlive = subject.wish.keepAlive && all;
    willWrite(subject);
  }

  // How much a socket takes in one go is the kernel's affair, so whether the response has left is seen by its end.
  void hasWritten(Subject& subject) {
    if (subject.served->ends == 0) return;
    if (subject.peerGone || !subject.wish.keepAlive) {
      willEnd(subject);
    } else {
      beginRequest(subject);
    }
  }

  // ---- The servlet

  void serve(Request& request, Response& response) {
    ASSERT_NE(asking, nullptr);
    const std::shared_ptr<Served> served = asking->served;
    EXPECT_EQ(served->response, nullptr);
    served->response = &response;
    request.onRequestEnd = [served] {
      ++served->ends;
      served->response = nullptr;
    };
    const Wish& wish = asking->wish;
    if (wish.wantsBody()) return serveBody(request, response, served, wish.kind);
    if (wish.kind == Wish::Kind::text) response.send("text");
    if (wish.kind == Wish::Kind::large) response.send(std::string(largeText, 'x'));
  }

  static void serveBody(Request& request, Response& response, const std::shared_ptr<Served>& served, Wish::Kind kind) {
    request.bodyChunk = 0;
    request.bodyConsumer = [served, kind, &response](std::string_view piece, bool last) {
      EXPECT_EQ(served->ends, 0);
      EXPECT_EQ(served->lasts, 0);
      served->body += piece.size();
      served->lasts += last ? 1 : 0;
      const bool answers = kind == Wish::Kind::bodyEarly || (kind == Wish::Kind::bodyText && last);
      if (answers && !piece.empty()) response.send("body");
    };
  }

  Wish wish(bool local) {
    using Kind = Wish::Kind;
    Wish made;
    made.kind = static_cast<Kind>(below(7));
    made.keepAlive = !oneIn(5) && made.kind != Kind::noVersion;
    if (local) made.head.assign(forwardBytes, 'f');
    if (made.kind == Kind::noVersion) {
      made.head += "GET /\n";
      return made;
    }
    if (made.wantsBody()) made.body.assign(1 + below(50), 'b');
    made.head += made.wantsBody() ? "POST / HTTP/1.1\r\n" : "GET / HTTP/1.1\r\n";
    if (made.wantsBody()) made.head += "Content-Length: " + std::to_string(made.body.size()) + "\r\n";
    if (!made.keepAlive) made.head += "Connection: close\r\n";
    made.head += "\r\n";
    return made;
  }

  // ---- What must hold after each event

  void check() {
    std::uint32_t alive = 0;
    std::size_t watched = 0;
    std::optional<tn::Clock::time_point> next;
    for (const Subject& subject : subjects) {
      checkCallables(subject);
      ++seen[static_cast<std::size_t>(subject.life)];
      if (!subject.alive()) continue;  // its number may be another's now
      EXPECT_EQ(runner.mask(subject.fd), subject.expectedMask());
      ++alive;
      watched += subject.expectedMask() ? 1 : 0;
      ASSERT_EQ(subject.connection->state(), subject.expectedState());
      EXPECT_EQ(subject.connection->socket(), subject.fd);
      for (const auto& end : {subject.headerEnd, subject.idleEnd}) {
        if (end && (!next || *end < *next)) next = end;
      }
    }
    EXPECT_EQ(openConnections, alive);
    EXPECT_EQ(runner.watchedCount(), watched);
    EXPECT_EQ(runner.timers().nextDeadline(), next);
    checkSpares();
  }

  static void checkCallables(const Subject& subject) {
    if (!subject.served) return;
    const Served& served = *subject.served;
    EXPECT_LE(served.completions, 1);
    EXPECT_LE(served.lasts, 1);
    EXPECT_LE(served.body, subject.wish.body.size());
    if (served.response != nullptr) {
      EXPECT_EQ(served.ends, 0);
      EXPECT_TRUE(subject.alive());
    } else {
      EXPECT_LE(served.ends, 1);
    }
    // A request that reached the servlet has ended, once, when its connection has.
    const bool reached = served.ends != 0 || served.body != 0 || served.completions != 0;
    if (!subject.alive() && reached) {
      EXPECT_EQ(served.ends, 1);
    }
  }

  // What connections hand on to each other is no larger than one of them may need.
  static void checkSpares() {
    std::unique_ptr<Workspace> spare = takeWorkspace();
    EXPECT_LE(spare->buffer.capacity(), Workspace::maxKeptBuffer);
    giveWorkspace(std::move(spare));
  }

  std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random); }
  bool oneIn(std::size_t n) { return below(n) == 0; }

  std::mt19937 random;
  std::array<int, 6> seen{};  // how often a connection was found in each life
  Subject subjects[count];
  Subject* asking = nullptr;  // whose bytes are read
};

TEST_F(ConnectionEventsTest, EachStateIsWhatTheTableSays) {
  for (unsigned seed = 0; seed < 80; ++seed) {
    run(seed, 300);
    ASSERT_FALSE(HasFailure()) << "seed " << seed;
  }
  EXPECT_GT(rarest(), 300);
}

}  // namespace
