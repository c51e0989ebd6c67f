#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/bus/timer_queue.h"
#include "platform/unique_fd.h"
#include "services/busd/client.h"
#include "services/busd/control.h"
#include "services/busd/directory.h"
#include "services/busd/limits.h"
#include "services/busd/poller.h"
#include "services/busd/router.h"

namespace busd {

// The message broker: accepts programs, reads their frames, has them routed, and forgets programs that are gone.
//
// One turn: wait for readiness, read each ready program once, write what was routed, bury the gone. A program that has
// more to give than one read takes comes again in the next turn, behind the others, so a flood from one delays the
// others by one read. All reads of a turn go into one space, one behind the other, until it is used up; what was read
// stays there until it is written.
class Broker {
 public:
  // `uid` is the broker's own user, which may do what root may.
  Broker(const Limits& limits, uid_t uid);
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;
  ~Broker();

  // Accepts from a listening socket, which is not owned, from now on. False: errno says why.
  [[nodiscard]] bool listen(int listener);
  // Takes a connection of a program of that user; false when it was turned away.
  bool adopt(UniqueFd socket, uid_t uid);

  // One turn, waiting for at most `timeoutMs` (-1: for ever) for something to do.
  void turn(int timeoutMs);
  // Turns until `stopFd` is readable.
  void run(int stopFd);

  [[nodiscard]] std::size_t clients() const { return clients_.size(); }

 private:
  static constexpr std::size_t eventsPerWait = 64;
  static constexpr std::size_t acceptsPerTurn = 64;
  static constexpr std::size_t spaceBytes = 512U << 10;
  static constexpr std::size_t bytesPerRead = 128U << 10;

  void accept();
  void pauseAccepting(bool paused);
  void turnAway(UniqueFd socket);
  void noteNumber(int descriptor);

  void onEvent(const epoll_event& event);
  void read(Client& client);
  void serve(Client& client);
  void serveControl(Client& client, const Frame& frame);
  void keepRest(Client& client);
  void countHeld(Client& client, std::size_t held);
  void giveUpOldest();
  void onDeadline(Client& client);
  void readAgain(Client& client);

  void buryGone();
  void bury(Client& client);

  const Limits limits_;
  const uid_t uid_;
  Poller poller_;
  tn::TimerQueue timers_;
  Directory directory_;
  std::size_t queuedTotal_ = 0;
  Router router_;
  Control control_;

  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<Client*> again_;  // may have more to read that the kernel does not announce
  std::size_t heldTotal_ = 0;
  std::uint64_t framesBegun_ = 0;
  std::unique_ptr<std::array<std::uint8_t, spaceBytes>> space_;
  std::size_t spaceUsed_ = 0;

  int listener_ = -1;
  bool acceptFailing_ = false;
  bool scarce_ = false;  // descriptors have nearly run out before
  tn::Timer acceptPause_;
  int stopFd_ = -1;
  bool stopped_ = false;
};

}  // namespace busd
