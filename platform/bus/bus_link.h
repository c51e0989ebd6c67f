#pragma once

#include <cstdint>
#include <span>

#include "platform/bus/frame.h"
#include "platform/bus/timer.h"
#include "platform/unique_fd.h"

namespace tn {

// A program's way to the broker: frames go in, frames come out. The real one is SocketLink; tests record and inject.
class BusLink {
 public:
  struct Arrival {
    FrameKind kind;
    std::uint32_t peer;
    std::span<const std::uint8_t> payload;  // until the call returns
    UniqueFd descriptor;
  };

  // Who is told what happens. None of these is called from within send or flush.
  class Sink {
   public:
    Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    virtual ~Sink() = default;
    virtual void onLinked(std::uint32_t id) = 0;
    virtual void onUnlinked() = 0;
    virtual void onFrame(Arrival arrival) = 0;
  };

  BusLink() = default;
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;
  virtual ~BusLink() = default;

  // Begins to connect, and to join again whenever the broker is lost; for ever. Called once; the sink outlives the
  // link's last callback.
  virtual void open(Sink& sink) = 0;
  // The id that the broker gave; 0 while there is no link.
  [[nodiscard]] virtual std::uint32_t id() const = 0;

  // Takes a frame, and its descriptor in any case. It is written at flush, or at once when much is waiting. False:
  // there is no link, or too much is waiting for it.
  virtual bool send(FrameKind kind, std::uint32_t peer, std::span<const std::uint8_t> payload, UniqueFd descriptor) = 0;
  // Writes what waits, as far as it goes without blocking; the rest follows by itself.
  virtual void flush() = 0;
  // Delivers frames that were read but left over, for the sake of other sockets; a flush has to follow. True: there are
  // still more.
  virtual bool resume() = 0;

  enum class Wait : std::uint8_t {
    frames,    // at least one was delivered
    timedOut,  // none came in time
    lost,      // none will come any more
  };
  // Waits for frames and delivers them, while nothing else of the program runs; the timers' time moves on with the
  // wait. A loss is only returned; the sink is told of it when the loop runs again.
  [[nodiscard]] virtual Wait waitForFrames(Clock::time_point deadline) = 0;

  // Whether neither flush nor resume has anything to do: most turns of a server have nothing for the bus.
  [[nodiscard]] bool atRest() const { return atRest_; }

 protected:
  bool atRest_ = false;  // as it stays for a link that does not know
};

}  // namespace tn
