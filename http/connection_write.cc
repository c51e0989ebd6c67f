// The response: built at once, written as the socket takes it.
#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "http/connection.h"
#include "http/file_cache.h"
#include "http/response_writer.h"
#include "platform/log.h"

namespace {

constexpr std::uint32_t largeFile = 262144;

// What is left of head and text, and with them the file when the cache has it mapped: all of it goes in one call.
//
// The mapping serves the first call alone, in the turn that asked for the file's size. A file that is cut short later
// reads as zeros up to the end of its last page, where sendfile finds the end.
class HeadPieces {
 public:
  HeadPieces(const std::string& head, const Outgoing& out) {
    const std::size_t ofHead = std::min(out.sent, head.size());
    add(std::string_view(head).substr(ofHead));
    add(out.text.substr(out.sent - ofHead));
    if (out.cached && !out.cached->mapped().empty() && !out.tried) {
      add(out.cached->mapped().substr(static_cast<std::size_t>(out.fileOffset), out.fileRemaining));
    } else {
      fileFollows_ = out.fileRemaining != 0 && (out.fileFd || out.cached);
    }
  }

  [[nodiscard]] const msghdr* message() {
    message_.msg_iov = pieces_.data();
    message_.msg_iovlen = count_;
    return &message_;
  }
  [[nodiscard]] std::size_t size() const { return size_; }
  // Whether the file comes afterwards, by sendfile.
  [[nodiscard]] bool fileFollows() const { return fileFollows_; }

 private:
  void add(std::string_view piece) {
    if (piece.empty()) return;
    pieces_[count_++] = {const_cast<char*>(piece.data()), piece.size()};
    size_ += piece.size();
  }

  std::array<iovec, 3> pieces_{};
  std::size_t count_ = 0;
  std::size_t size_ = 0;
  bool fileFollows_ = false;
  msghdr message_{};
};

}  // namespace

void Connection::writeResponse() {
  idleTimer_.start(runner_.timers(), idleLimitMs);
  state_ = State::Writing;
  if (bodyReceived_ != bodyLength_) response_.keepAlivePermitted = false;
  work_->buffer.clear();
  buildResponse(request_, response_, runner_, work_->buffer, out_);
  server_.counters.countResponse(response_.status);
}

void Connection::onWritable() {
  if (state_ != State::Writing) return;
  pace_.room(socket_.get(), runner_.timers().now());
  if (out_.sent < work_->buffer.size() + out_.text.size() && !writeHead()) return;
  if (out_.fileRemaining != 0 && !writeFile()) return;
  onWritten();
}

// Head and file as one piece, when they are all of the response and have been made for it.
std::string_view Connection::wholeResponse() const {
  if (out_.tried || out_.cachedHead == 0 || out_.cachedHead != out_.cached->heads()) return {};
  return out_.cached->whole();
}

// True: head and text have left. Neither here nor below does a count short of what was offered tell that the socket is
// full (a signal or a file cut short end the call early as well): only the failure that does is told the runner.
bool Connection::writeHead() {
  std::size_t offered = 0;
  ssize_t count = 0;
  if (const std::string_view whole = wholeResponse(); !whole.empty()) {
    offered = whole.size();
    count = send(socket_.get(), whole.data(), whole.size(), 0);
  } else {
    HeadPieces pieces(work_->buffer, out_);
    offered = pieces.size();
    if (pieces.fileFollows() && out_.fileRemaining > largeFile) pace_.begin(socket_.get());
    // With a file to follow, the kernel keeps the head back, so that both share their segments.
    count = sendmsg(socket_.get(), pieces.message(), pieces.fileFollows() ? MSG_MORE : 0);
  }
  out_.tried = true;
  if (count < 0) {
    onWriteFailed();
    return false;
  }
  const auto written = static_cast<std::size_t>(count);
  server_.counters.bytesWritten += written;
  const std::size_t ofHead = std::min(written, work_->buffer.size() + out_.text.size() - out_.sent);
  out_.sent += ofHead;
  out_.fileOffset += static_cast<off_t>(written - ofHead);
  out_.fileRemaining -= static_cast<std::uint32_t>(written - ofHead);
  return written == offered;
}

// True: the file has left.
bool Connection::writeFile() {
  const int file = out_.cached ? out_.cached->fd() : out_.fileFd.get();
  const ssize_t count = sendfile(socket_.get(), file, &out_.fileOffset, out_.fileRemaining);
  if (count < 0) {
    onWriteFailed();
    return false;
  }
  if (count == 0) {  // the file has become shorter than its announced length
    finish();
    return false;
  }
  out_.fileRemaining -= static_cast<std::uint32_t>(count);
  server_.counters.bytesWritten += static_cast<std::uint32_t>(count);
  return out_.fileRemaining == 0;
}

void Connection::onWriteFailed() {
  if (errno == EINTR) return;  // sendfile, before its first byte: the runner calls again
  if (errno == EAGAIN) {
    runner_.drained(socket_.get(), tn::writable);
    pace_.full(runner_.timers().now());
    return;
  }
  logSystemError("write");
  finish();
}

// Bytes that were read behind this request are lost: requests are not pipelined.
void Connection::onWritten() {
  const bool keepAlive = out_.keepAlive;
  out_ = {};
  if (!keepAlive) {
    finish();
    return;
  }
  request_.reset();
  response_.reset();
  watch(tn::readable);
  beginRequest();
}
