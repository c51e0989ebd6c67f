#pragma once

#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/bus/thin_runner.h"

namespace tn::fakes {

// A runner that is turned by hand: nothing is waited for, no clock is read. Tests say which sockets are ready and how
// much time passes.
//
//   FakeRunner runner;
//   runner.addSocket(fd, readable, callback);
//   runner.ready(fd, readable);   // calls the callback, as the kernel's word would
//   runner.advance(2000);         // runs every timer of the next two seconds at its own deadline
//
// Descriptors need not exist. One that does is made non-blocking, as the real runner does.
class FakeRunner : public ThinRunner {
 public:
  enum class Operation : std::uint8_t { add, change, remove, drained };
  // One call of the runner's socket functions, successful or not, in order. `bits` is the mask, or what was drained.
  struct Call {
    Operation operation;
    int fd;
    unsigned bits;
    bool result;
    friend bool operator==(const Call&, const Call&) = default;
  };

  using ThinRunner::addSocket;

  bool addSocket(int fd, unsigned mask, SocketCallback callback, Trigger trigger) override {
    const bool fresh = fd >= 0 && !refuseAdds && !sockets_.contains(fd);
    if (fresh) {
      const int flags = fcntl(fd, F_GETFL);
      if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
      sockets_[fd] = std::make_shared<Socket>(Socket{mask, trigger, std::move(callback)});
    }
    calls.push_back({Operation::add, fd, mask, fresh});
    return fresh;
  }

  bool changeSocket(int fd, unsigned mask) override {
    const auto found = sockets_.find(fd);
    const bool known = found != sockets_.end() && !refuseChanges;
    if (known) found->second->mask = mask;
    calls.push_back({Operation::change, fd, mask, known});
    return known;
  }

  bool removeSocket(int fd) override {
    const bool known = sockets_.erase(fd) != 0;
    calls.push_back({Operation::remove, fd, 0, known});
    return known;
  }

  void drained(int fd, unsigned bits) override {
    calls.push_back({Operation::drained, fd, bits, sockets_.contains(fd)});
  }

  [[nodiscard]] bool isReady(int fd, unsigned bits) const override {
    return sockets_.contains(fd) && (atHand & bits) == bits;
  }

  // Nothing is ever ready by itself: a loop that runs on this runner ends at once.
  [[nodiscard]] bool turn(bool) override { return false; }

  // Tells the socket of those of `bits` that it is watched for (a hang-up always). False, and nothing is called: it is
  // not watched, or for none of them.
  bool ready(int fd, unsigned bits) {
    const auto found = sockets_.find(fd);
    if (found == sockets_.end()) return false;
    const std::shared_ptr<Socket> socket = found->second;  // the callback may remove it
    const unsigned told = bits & (socket->mask | hangUp);
    if (told == 0) return false;
    socket->callback(fd, told);
    return true;
  }

  // Lets time pass: every timer due within it runs at its own deadline, those armed by other timers included.
  void advance(std::uint32_t ms) {
    const auto target = timers().now() + std::chrono::milliseconds(ms);
    for (int rounds = 0; rounds < maxRounds; ++rounds) {
      const auto next = timers().nextDeadline();
      if (!next || *next > target) break;
      if (*next > timers().now()) rounds = 0;
      timers().runExpired(*next);
    }
    timers().setNow(target);
  }

  [[nodiscard]] bool watched(int fd) const { return sockets_.contains(fd); }
  [[nodiscard]] std::size_t watchedCount() const { return sockets_.size(); }
  // Nothing when the socket is not watched.
  [[nodiscard]] std::optional<unsigned> mask(int fd) const {
    const auto found = sockets_.find(fd);
    if (found == sockets_.end()) return std::nullopt;
    return found->second->mask;
  }
  [[nodiscard]] std::optional<Trigger> trigger(int fd) const {
    const auto found = sockets_.find(fd);
    if (found == sockets_.end()) return std::nullopt;
    return found->second->trigger;
  }

  std::vector<Call> calls;
  unsigned atHand = 0;         // what every socket is known to be ready for
  bool refuseAdds = false;     // as a kernel that has no room for more
  bool refuseChanges = false;  // as one that has no memory for it

 private:
  // Immediate timers that arm themselves again are run this often at one instant before time goes on.
  static constexpr int maxRounds = 100;

  struct Socket {
    unsigned mask;
    Trigger trigger;
    SocketCallback callback;
  };
  std::map<int, std::shared_ptr<Socket>> sockets_;
};

}  // namespace tn::fakes
