#include "http/connection.h"

#include <utility>

#include "http/file_answers.h"
#include "http/file_cache.h"

namespace {

std::list<Connection>& connections() {
  static std::list<Connection> instance;
  return instance;
}

}  // namespace

Connection::Connection(Key /*key*/, Site& site, UniqueFd socket, bool tls, bool unixListener, tn::ThinRunner& runner)
    : server_(site),
      socket_(std::move(socket)),
      request_(tls, unixListener),
      headerTimer_([this] { timeOut(); }),
      idleTimer_([this] { timeOut(); }),
      runner_(runner) {}

Connection& createConnection(Site& site, UniqueFd socket, bool tls, bool unixListener, tn::ThinRunner& runner) {
  auto& all = connections();
  Connection& connection = all.emplace_front(Connection::Key(), site, std::move(socket), tls, unixListener, runner);
  connection.self_ = all.begin();
  ++openConnections;
  ++site.counters.open;
  return connection;
}

void endAllConnections() {
  auto& all = connections();
  while (!all.empty()) {
    Connection& connection = all.front();
    if (connection.state_ != Connection::State::Ended) connection.destroy();
    all.erase(connection.self_);
  }
  fileAnswers().clear();
  fileCache().clear();
}

void Connection::beginRequest() {
  runRequestEnd();
  if (work_) layDownWork();
  state_ = request_.unix && !request_.ssl ? State::ReadForward : State::ReadRequestLine;
  fill_ = 0;
  headerBytes_ = 0;
  bodyReceived_ = 0;
  bodyLength_ = 0;
  headerTimer_.start(runner_.timers(), headerLimitMs);
  idleTimer_.start(runner_.timers(), idleLimitMs);
}

void Connection::onSocketEvent(int /*fd*/, unsigned events) {
  handleEvents(events);
  freeIfEnded();
}

void Connection::handleEvents(unsigned events) {
  idleTimer_.start(runner_.timers(), idleLimitMs);
  if ((events & tn::hangUp) != 0) {
    finish();
    return;
  }
  if ((events & tn::readable) != 0) onReadable();
  // Who has read a question writes the answer at once, while all it works with is at hand.
  const bool mayWrite =
      (events & tn::writable) != 0 || (state_ == State::Writing && runner_.isReady(socket_.get(), tn::writable));
  if (mayWrite) onWritable();
  if (state_ == State::Writing) watch(tn::writable);
}

void Connection::close() {
  finish();
  freeIfEnded();
}

// The header timer of a request without version still runs while it is parked: what ran out then is its head's time.
void Connection::timeOut() {
  switch (state_) {
    case State::ReadForward:
    case State::ReadRequestLine:
    case State::ReadHeaders:
    case State::Dispatched:
      ++server_.counters.headTimeouts;
      break;
    case State::ReadBody:
      ++server_.counters.bodyTimeouts;
      break;
    case State::Writing:
      ++server_.counters.writeTimeouts;
      break;
    case State::Closed:
    case State::Ended:
      break;
  }
  close();
}

// What `close` does but for the freeing, which is left to whoever was called from outside.
void Connection::finish() {
  switch (state_) {
    case State::Closed:
    case State::Ended:
      return;
    case State::Dispatched:
      state_ = State::Closed;
      return;
    case State::ReadBody:
      deliver({}, true);
      break;
    case State::ReadForward:
    case State::ReadRequestLine:
    case State::ReadHeaders:
    case State::Writing:
      break;
  }
  destroy();
}

void Connection::destroy() {
  state_ = State::Ended;
  runRequestEnd();
  --openConnections;
  --server_.counters.open;
  headerTimer_.cancel();
  idleTimer_.cancel();
  out_ = {};
  if (work_) {
    request_.headers.clear();
    response_.headers.clear();
    layDownWork();
  }
  closeSocket();
}

// Of a socket that came back from the TLS service a copy may live on there for a while, so that closing it here does
// not end its watch.
void Connection::closeSocket() {
  const int fd = socket_.get();
  if (request_.ssl) runner_.removeSocket(fd);
  socket_.reset();
  runner_.forgetSocket(fd);
}

void Connection::freeIfEnded() {
  if (state_ == State::Ended) connections().erase(self_);
}

void Connection::park() {
  state_ = State::Dispatched;
  runner_.removeSocket(socket_.get());
  watched_ = 0;
  idleTimer_.cancel();
  if (work_->buffer.capacity() > Workspace::maxKeptBuffer) std::string().swap(work_->buffer);
  response_.onComplete = [this] { complete(); };
}

void Connection::complete() {
  if (state_ == State::Dispatched) {
    writeResponse();
    watch(tn::writable);
  } else if (state_ == State::Closed) {
    destroy();
  }
  freeIfEnded();
}

// A parked connection's socket is not watched, so there is nothing to change.
void Connection::changeWatch(unsigned mask) {
  watched_ = mask;
  const int fd = socket_.get();
  if (runner_.changeSocket(fd, mask)) return;
  runner_.addNonBlocking(fd, mask, [this](int socket, unsigned events) { onSocketEvent(socket, events); });
}

// The size that the library hands to the operation is the capacity it made, which may be more than was asked for.
void Connection::setLength(std::size_t length) {
  work_->buffer.resize_and_overwrite(length, [length](char*, std::size_t) { return length; });
}

void Connection::takeUpWork() {
  work_ = takeWorkspace();
  request_.headers.swap(work_->requestHeaders);
  response_.headers.swap(work_->responseHeaders);
}

void Connection::layDownWork() {
  request_.headers.swap(work_->requestHeaders);
  response_.headers.swap(work_->responseHeaders);
  giveWorkspace(std::move(work_));
}
