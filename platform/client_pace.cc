#include "platform/client_pace.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

constexpr int firstUnsent = 131072;
constexpr std::chrono::milliseconds soon{50};
constexpr unsigned soonAtLeast = 8;  // the first ones fill the client's own buffers, however slow it is

void limitUnsent(int socket, int bytes) {  // a local socket refuses it: who is at its other end sees to the client
  setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &bytes, sizeof bytes);
}

}  // namespace

void ClientPace::ask(int socket) {
  limitUnsent(socket, firstUnsent);
  state_ = State::asked;
}

void ClientPace::judge(int socket, Time now) {
  if (now - fullSince_ > soon) {
    state_ = State::known;
    return;
  }
  if (++soonSoFar_ < soonAtLeast) {
    state_ = State::asked;
    return;
  }
  limitUnsent(socket, 0);
  state_ = State::known;
}
