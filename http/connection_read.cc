// From bytes to a request: reading, lines, the forwarding header, and the choice of the servlet.
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "http/connection.h"
#include "http/file_answers.h"
#include "http/file_facts.h"
#include "http/forward_header.h"
#include "http/servlet_choice.h"
#include "platform/log.h"
#include "platform/web/reuse.h"

namespace {

constexpr std::size_t firstRoom = 512;           // room of the buffer at the start of a request
constexpr std::size_t leastRoom = 127;           // with this much free room or less the buffer is doubled
constexpr std::size_t maxHeldBytes = 4095;       // held at once before the end of the header block
constexpr std::uint32_t maxHeaderBytes = 16384;  // request line and header lines in all, without line ends
constexpr std::uint32_t unknownLength = 0xFFFFFFFF;

std::string_view withoutReturn(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

}  // namespace

void Connection::onReadable() {
  switch (state_) {
    case State::ReadForward:
    case State::ReadRequestLine:
    case State::ReadHeaders:
    case State::ReadBody:
      break;
    case State::Dispatched:
    case State::Writing:
    case State::Closed:
    case State::Ended:
      return;
  }
  if (!work_) {
    takeUpWork();
    setLength(firstRoom);
  }
  announced_ = fill_ == 0 && runner_.announced();
  newsHeard_ = announced_ && runner_.newsHeard();
  std::size_t scanFrom = fill_;
  if (!readMore()) return;
  if (state_ == State::ReadBody) {
    dropExcess();
    pumpBody();
    return;
  }
  if (state_ == State::ReadForward) {
    if (fill_ < forwardHeaderBytes) return;
    takeForwardHeader();
    scanFrom = 0;
  }
  readHead(scanFrom);
}

// One read into the free room. False: nothing came, or the connection has ended.
bool Connection::readMore() {
  const std::size_t room = work_->buffer.size() - fill_;
  const ssize_t count = recv(socket_.get(), work_->buffer.data() + fill_, room, 0);
  if (count < 0 && errno == EAGAIN) {
    runner_.drained(socket_.get(), tn::readable);
    return false;
  }
  if (count <= 0) {
    if (count < 0) logSystemError("read");
    finish();
    return false;
  }
  if (static_cast<std::size_t>(count) < room) runner_.drained(socket_.get(), tn::readable);
  fill_ += static_cast<std::uint32_t>(count);
  server_.counters.bytesRead += static_cast<std::uint32_t>(count);
  return true;
}

void Connection::takeForwardHeader() {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(work_->buffer.data());
  applyForwardHeader(std::span<const std::uint8_t, forwardHeaderBytes>(bytes, forwardHeaderBytes), request_);
  work_->buffer.erase(0, forwardHeaderBytes);
  fill_ -= std::uint32_t{forwardHeaderBytes};
  state_ = State::ReadRequestLine;
}

void Connection::readHead(std::size_t scanFrom) {
  std::size_t lineStart = 0;
  Scan result = scanLines(scanFrom, lineStart);
  if (result == Scan::incomplete) result = keepPartialLine(lineStart);
  switch (result) {
    case Scan::incomplete:
      return;
    case Scan::malformed:
      refuse();
      return;
    case Scan::complete:
      // What follows the header block is the beginning of a body.
      dropFront(lineStart);
      work_->buffer.erase(fill_);
      state_ = State::Dispatched;
      dispatch();
      return;
  }
}

// Takes all whole lines; the bytes before `scanFrom` hold no line end. `lineStart` becomes the first byte that was not
// taken.
Connection::Scan Connection::scanLines(std::size_t scanFrom, std::size_t& lineStart) {
  const std::string_view held(work_->buffer.data(), fill_);
  for (std::size_t end = held.find('\n', scanFrom); end != held.npos; end = held.find('\n', lineStart)) {
    const std::string_view line = withoutReturn(held.substr(lineStart, end - lineStart));
    lineStart = end + 1;
    if (const Scan result = takeLine(line); result != Scan::incomplete) return result;
  }
  return Scan::incomplete;
}

// Incomplete: more lines are to come.
Connection::Scan Connection::takeLine(std::string_view line) {
  if (state_ == State::ReadRequestLine) {
    headerBytes_ += static_cast<std::uint32_t>(line.size());
    if (!request_.parseStatusLine(line)) return Scan::malformed;
    if (request_.version == version09) return Scan::complete;
    state_ = State::ReadHeaders;
    return Scan::incomplete;
  }
  if (line.empty()) {
    response_.initFrom(request_);
    headerTimer_.cancel();
    return Scan::complete;
  }
  headerBytes_ += static_cast<std::uint32_t>(line.size());
  if (headerBytes_ > maxHeaderBytes || !request_.headers.parseHeaderLine(line)) return Scan::malformed;
  return Scan::incomplete;
}

// Keeps the line that has no end yet. Both limits count what was held before, the lines taken from this read included.
Connection::Scan Connection::keepPartialLine(std::size_t lineStart) {
  if (fill_ > maxHeldBytes) return Scan::malformed;
  if (work_->buffer.size() - fill_ <= leastRoom) setLength(2 * work_->buffer.size());
  dropFront(lineStart);
  return Scan::incomplete;
}

// Of the bytes held, not of the room behind them.
void Connection::dropFront(std::size_t count) {
  fill_ -= static_cast<std::uint32_t>(count);
  if (fill_ != 0) std::memmove(work_->buffer.data(), work_->buffer.data() + count, fill_);
}

// What follows a request that cannot be parsed must not be taken for another one.
void Connection::refuse() {
  if (request_.protocol == Protocol::unknown) {
    response_.sendError(503, "unknown protocol");
  } else if (request_.method == Method::unknown) {
    response_.sendError(503, "unknown method");
  } else {
    response_.sendError(400, "");
  }
  response_.keepAlivePermitted = false;
  state_ = State::Dispatched;
  writeResponse();
}

void Connection::dispatch() {
  const bool post = request_.method == Method::post;
  if (post && !request_.headers.getHeader("content-length", &bodyLength_)) bodyLength_ = unknownLength;

  fileAnswers().beginRequest(runner_, announced_, newsHeard_);
  const Target target = splitTarget(request_.uri);
  if (!target.query.empty()) assignForReuse(request_.query, target.query);
  const ServletChoice choice = chooseServlet(server_, target.path);
  forgetFile();
  if (choice.servlet == nullptr) {
    response_.sendError(404, "");
  } else {
    assignForReuse(request_.pathInfo, choice.pathInfo);
    request_.pathInfoSet = true;
    choice.servlet->doMethod(request_, response_);
  }
  fileAnswers().endRequest();

  if (response_.answered()) {
    writeResponse();
  } else if (post && request_.bodyChunk != -1) {
    beginBody();
  } else {
    park();
  }
  forgetFile();
}
