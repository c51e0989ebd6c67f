#pragma once

#include <cstdint>
#include <sys/epoll.h>
#include <utility>
#include <vector>

#include "platform/bus/thin_runner.h"
#include "platform/unique_fd.h"

namespace tn {

// The runner of real programs: epoll.
//
// Level sockets are registered with the mask that is asked for. Cached sockets are registered once, edge-triggered;
// what the kernel announced is remembered in the slot until the callback says `drained`, and the mask only selects what
// is told. So between two waits no system call is spent on interest, and a socket whose mask changes to something it is
// ready for is called in the same turn. A cached socket is taken for writable until a write fails with EAGAIN; only
// then is it registered for that, too, for good.
//
// A socket of addNonBlocking is given to the kernel only before the next wait, and taken for ready until it says
// otherwise: the request of a connection that was just accepted is mostly there, and a connection that is answered and
// closed in the same turn never costs a registration.
//
// News is heard before sockets are called, but has it been heard when bytes are told of? A wait takes the list of what
// may be ready as it is, and then asks each for what it is ready for. So news that is missing in what a wait told came
// after the list was taken, and bytes that were there by then came before it. A socket that is registered for reading
// alone is on the list for bytes that came, which its callback may have read by then; the next wait that has room for
// all takes it off again. So one that is told of bytes by a wait that had room for all, with another such wait since
// its callback was last called to read, was on the list for these bytes, and newsHeard() is true.
//
// A wait has no time-out, which the kernel would set up and take down each time it sleeps. An alarm ends it, a
// descriptor like the others. It is set when the next deadline lies before what it is set to: timers that are armed
// anew move their deadlines away from it, so it rings now and then for nothing, and is seldom touched.
//
// A slot has a generation, which every add and remove changes. It travels with the kernel's events and with the queue
// of sockets to be called, so neither reaches a socket that got the same descriptor number later in the same turn.
class EpollRunner : public ThinRunner {
 public:
  static constexpr unsigned defaultEventsPerWait = 64;
  static constexpr unsigned defaultRoundsPerTurn = 4;

  // 0 takes the default.
  EpollRunner(unsigned eventsPerWait, unsigned roundsPerTurn);
  EpollRunner() : EpollRunner(0, 0) {}

  using ThinRunner::addSocket;
  bool addSocket(int fd, unsigned mask, SocketCallback callback, Trigger trigger) override;
  bool addNonBlocking(int fd, unsigned mask, SocketCallback callback) override;
  bool changeSocket(int fd, unsigned mask) override;
  bool removeSocket(int fd) override;
  bool forgetSocket(int fd) override;
  void drained(int fd, unsigned bits) override;
  [[nodiscard]] bool isReady(int fd, unsigned bits) const override;
  bool addNews(int fd, bool urgent, const std::function<void()>& hear) override;

  // Does not wait either while sockets are left over from the last turn. A signal ends the wait and is no failure.
  [[nodiscard]] bool turn(bool mayWait) override;

 private:
  // One line of the cache each.
  struct alignas(64) Slot {
    SocketCallback callback;
    std::uint32_t generation = 0;
    std::uint32_t readAfter = 0;  // waits with room for all when it was last called to read
    std::uint8_t mask = 0;
    std::uint8_t ready = 0;
    std::uint8_t lasting = 0;  // bits that stay ready for the rest of the socket's life
    bool watched = false;
    bool cached = false;
    bool queued = false;
    bool introduced = false;  // the kernel knows it
    bool announced = false;   // a wait told of bytes, and the socket was not called to read them yet
    bool fresh = false;       // and it was on the list for these bytes
    bool writes = false;      // cached, and registered for writing as well
    bool news = false;
  };
  // A socket to be called, and which registration of its number is meant.
  struct Entry {
    int fd;
    std::uint32_t generation;
  };

  [[nodiscard]] const Slot* find(int fd) const;
  [[nodiscard]] Slot* find(int fd) { return const_cast<Slot*>(std::as_const(*this).find(fd)); }
  [[nodiscard]] Slot* find(const Entry& entry);
  [[nodiscard]] Slot* occupy(int fd, unsigned mask, bool cached);
  [[nodiscard]] int timeToWait();
  bool setAlarm(Clock::time_point when);
  bool tellKernel(int operation, int fd, const Slot& slot);
  bool introduce(int fd, Slot& slot);
  void introduceUnknown();
  void awaitRoom(int fd, Slot& slot);
  void vacate(int fd, Slot& slot);
  void enqueue(int fd, Slot& slot);
  void note(const epoll_event& event);
  void call(const Entry& entry);
  void tell(int fd, Slot& slot, const SocketCallback& callback);
  [[nodiscard]] bool kernelToldAll(int count);
  [[nodiscard]] bool callReady();

  UniqueFd epoll_;
  UniqueFd alarm_;                                        // a timer of the kernel; none when there is none to be had
  Clock::time_point alarmAt_ = Clock::time_point::max();  // when it rings; never, once it has
  int called_ = -1;                                       // the socket whose callback runs
  unsigned roundsPerTurn_;
  std::vector<Slot> slots_;     // by descriptor
  std::vector<Entry> pending_;  // sockets to be called next
  std::vector<Entry> round_;    // those being called
  std::vector<Entry> unknown_;  // sockets that the kernel does not know yet
  std::vector<epoll_event> events_;
  std::size_t told_ = 0;          // events since a wait ended with room left for more
  std::uint32_t roomyWaits_ = 0;  // waits with room for all; wraps around
  bool roomy_ = false;            // whether the last one was
};

}  // namespace tn
