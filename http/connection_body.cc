// A POST's body: pieces to the consumer that the servlet has set.
#include <algorithm>
#include <utility>

#include "http/connection.h"

namespace {

constexpr std::uint32_t streamRoom = 4096;  // of a body that is delivered as it comes
constexpr std::size_t firstBodyRoom = 4096;

}  // namespace

// The buffer grows towards the wanted piece as bytes arrive: a length that is merely announced costs no memory.
void Connection::beginBody() {
  if (request_.bodyChunk < 0) {  // a length that the servlet cannot have meant
    response_.sendError(413, "");
    writeResponse();
    return;
  }
  bodyRoom_ = request_.bodyChunk == 0 ? streamRoom : static_cast<std::uint32_t>(request_.bodyChunk);
  state_ = State::ReadBody;
  dropExcess();
  setLength(std::max<std::size_t>(fill_, std::min<std::size_t>(bodyRoom_, firstBodyRoom)));
  pumpBody();
}

// Bytes beyond the announced length belong to nobody: requests are not pipelined.
void Connection::dropExcess() {
  fill_ = std::min(fill_, bodyLength_ - bodyReceived_);
}

// A piece is delivered when it is whole, or at once when the servlet takes the body as it comes.
void Connection::pumpBody() {
  std::size_t done = 0;
  while (const std::size_t size = nextPiece(fill_ - done)) {
    const std::string_view piece(work_->buffer.data() + done, size);
    done += size;
    bodyReceived_ += static_cast<std::uint32_t>(size);
    const bool last = bodyReceived_ == bodyLength_;
    deliver(piece, last);
    if (response_.answered()) {
      writeResponse();
      return;
    }
    if (last) {
      park();
      return;
    }
  }
  dropFront(done);
  // What came with the head may have been more than the room, which holds from now on.
  if (fill_ == work_->buffer.size() || work_->buffer.size() > bodyRoom_) {
    setLength(std::min<std::size_t>(bodyRoom_, 2 * work_->buffer.size()));
  }
}

// Size of the piece to be delivered of `held` bytes; 0: more must come first.
std::size_t Connection::nextPiece(std::size_t held) const {
  if (request_.bodyChunk == 0) return std::min<std::size_t>(held, bodyRoom_);
  return held < bodyRoom_ ? 0 : bodyRoom_;
}

// The consumer is out of its slot while it runs, since it may put another one there.
void Connection::deliver(std::string_view piece, bool last) {
  auto consumer = std::exchange(request_.bodyConsumer, nullptr);
  if (consumer) consumer(piece, last);
  if (!request_.bodyConsumer) request_.bodyConsumer = std::move(consumer);
}
