#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "platform/bus/timer.h"
#include "platform/bus/timer_queue.h"

namespace tn {

// The poll bits that sockets are watched for and told of.
inline constexpr unsigned readable = 1;
inline constexpr unsigned writable = 4;
inline constexpr unsigned hangUp = 16;  // always told, never asked for

// How the runner learns that a socket has nothing more to give.
enum class Trigger : std::uint8_t {
  // The kernel is asked anew each time: a callback that leaves bytes behind is called again. changeSocket costs a
  // system call. For listeners and whatever is watched rarely.
  level,
  // The runner remembers what the socket is ready for until the callback says `drained`, so changing the interest costs
  // nothing and an answer can be written in the turn that brought the request. A callback that neither drains the
  // socket nor changes the interest is called again in the same turn. For connections.
  cached,
};

// Socket readiness and timers of one thread. The loop's runner waits with epoll; tests turn a fake by hand.
//
// The runner never owns or closes a descriptor. Callbacks may add, change and remove any socket, their own included,
// and may destroy the object that they are bound to; a removed socket is never called again, even when the same
// descriptor number is added anew in the same turn.
class ThinRunner {
 public:
  using SocketCallback = std::function<void(int fd, unsigned events)>;
  using TimerCallback = std::function<void()>;
  // 0 is no timer.
  using TimerHandle = std::uint64_t;

  ThinRunner() = default;
  ThinRunner(const ThinRunner&) = delete;
  ThinRunner& operator=(const ThinRunner&) = delete;
  virtual ~ThinRunner() = default;

  // Watches a socket for the bits of `mask`; 0 watches for nothing but a hang-up. The socket is made non-blocking.
  // False: it is watched already, or the kernel refuses it (errno says why).
  virtual bool addSocket(int fd, unsigned mask, SocketCallback callback, Trigger trigger) = 0;
  bool addSocket(int fd, unsigned mask, SocketCallback callback) {
    return addSocket(fd, mask, std::move(callback), Trigger::level);
  }
  // As addSocket with Trigger::cached, for a socket that was made non-blocking when it was made (accept4): saves the
  // call that would make it so.
  virtual bool addNonBlocking(int fd, unsigned mask, SocketCallback callback) {
    return addSocket(fd, mask, std::move(callback), Trigger::cached);
  }
  // Replaces the mask. False: the socket is not watched (also for -1).
  virtual bool changeSocket(int fd, unsigned mask) = 0;
  // Stops watching; may be called just before or just after the descriptor is closed. False: it was not watched.
  virtual bool removeSocket(int fd) = 0;
  // As removeSocket, for a descriptor that is closed before the next wait and of which no copy lives on (in another
  // process, say): closing it ends the watch, so that no system call is spent on it here.
  virtual bool forgetSocket(int fd) { return removeSocket(fd); }
  // For cached sockets: a read or write of this socket took less than it was offered, or failed with EAGAIN, so `bits`
  // have to be announced by the kernel again before the next call.
  virtual void drained(int fd, unsigned bits) = 0;
  // For cached sockets: whether one is known to be ready for all of `bits`, so that what they are for can be done now,
  // without a change of the mask and a call. False: that is not known.
  [[nodiscard]] virtual bool isReady(int /*fd*/, unsigned /*bits*/) const { return false; }
  // Watches a descriptor for news that the other callbacks rely on: as soon as a wait has told of something to read, or
  // with `urgent` of something exceptional alone (EPOLLPRI), `hear` is called, before any socket is. It takes in all
  // that there is and does not come back to the runner. Ends with removeSocket. False: this runner knows no news, or
  // the kernel refuses it.
  virtual bool addNews(int /*fd*/, bool /*urgent*/, const std::function<void()>& /*hear*/) { return false; }

  // How often the runner has asked the kernel what is ready.
  [[nodiscard]] std::uint64_t waits() const { return waits_; }
  // Within a callback of a cached socket that is told to be readable: unread bytes, or the end, were there when the
  // last wait returned. So whatever their sender did before had been done by then. False: that is not known.
  [[nodiscard]] bool announced() const { return announced_; }
  // As announced(), and all news that came before those bytes has been heard, if it was watched for before the last
  // wait. False: that is not known.
  [[nodiscard]] bool newsHeard() const { return newsHeard_; }

  // Arms a one-shot timer. The handle is never given twice.
  TimerHandle addTimer(std::uint32_t ms, TimerCallback callback) { return timers_.add(ms, std::move(callback)); }
  // False: no such timer (it ran, or was removed); harmless.
  bool removeTimer(TimerHandle handle) { return timers_.remove(handle); }

  // One turn: waits until a socket is ready or a timer expires (not at all when `mayWait` is false), calls the sockets,
  // then runs the timers. A callback that waited for something itself, and so moved the timers' time, ends the turn.
  // False: nothing will ever be ready again (errno says why).
  [[nodiscard]] virtual bool turn(bool mayWait) = 0;

  [[nodiscard]] TimerQueue& timers() { return timers_; }

 protected:
  void countWait() { ++waits_; }
  void setAnnounced(bool announced, bool newsHeard) {
    announced_ = announced;
    newsHeard_ = newsHeard;
  }

 private:
  std::uint64_t waits_ = 0;
  bool announced_ = false;
  bool newsHeard_ = false;
  TimerQueue timers_;
};

}  // namespace tn
