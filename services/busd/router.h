#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/bus/frame.h"
#include "services/busd/client.h"
#include "services/busd/directory.h"
#include "services/busd/limits.h"
#include "services/busd/poller.h"

namespace busd {

// Moves frames from the program that sent them to those they are for.
//
// A frame is not written when it is routed: the header is rewritten where it lies, and the place is noted with its
// destination. Frames of a read that follow each other to one destination are so one piece of memory again, and
// flush() writes all pieces for a destination with one system call, straight from where they were read to. Only what
// the destination's socket does not take is copied, into its queue. Two kinds of frames go by themselves: one with a
// descriptor, so that the descriptor stays with it, and a large one that has memory of its own, so that its queue can
// take the memory over.
//
// A frame that cannot reach its one destination goes back to its sender as bounced, without its descriptor. Bounced
// frames, copies for groups and monitors, and answers do not bounce when they cannot be delivered; they are dropped and
// counted. So nothing that happens here makes more than one frame of one, except for groups.
class Router {
 public:
  struct Totals {
    Traffic taken;  // from all programs, control frames not counted
    std::uint64_t bounced = 0;
    std::uint64_t dropped = 0;     // copies and answers that had no room
    std::uint64_t unobserved = 0;  // frames that a monitor had no room for
  };

  Router(Directory& directory, const Poller& poller, const Limits& limits, const std::size_t& queuedTotal)
      : directory_(directory), poller_(poller), limits_(limits), queuedTotal_(queuedTotal) {}

  // Takes a message from a joined program. Its bytes have to stay where they are until flush(), those of a frame
  // with memory of its own only until route() returns.
  void route(Client& from, Frame& frame);

  // Answers a control message, behind everything that was routed to that program before.
  void answer(Client& to, std::span<const std::uint8_t> payload);

  // Writes everything that was routed. The read space may be used again afterwards.
  void flush();
  // The same for one program.
  void flush(Client& to);

  // The kernel announced room in the program's socket.
  void resume(Client& client);

  // Copies of all frames go to the program from now on, or no longer do.
  void setMonitoring(Client& client, bool wanted);
  // A control frame of the program, for the monitors' eyes.
  void observeControl(const Client& from, std::span<const std::uint8_t> payload);

  // Marks the program as gone: what is for it from now on bounces. It stays in the directory until its owner takes it
  // out after the next flush. `why` is a literal.
  void disconnect(Client& client, std::string_view why);
  // The programs that were marked since the last call.
  [[nodiscard]] std::vector<Client*> takeGone();

  [[nodiscard]] const Totals& totals() const { return totals_; }
  [[nodiscard]] std::size_t queuedBytes() const { return queuedTotal_; }

 private:
  enum class Undeliverable : std::uint8_t { bounce, drop };
  // One or more whole frames, one behind the other.
  struct Piece {
    std::uint8_t* bytes;
    std::size_t length;
    std::uint32_t next;
    Undeliverable otherwise;
  };
  // How far a destination's pieces are written.
  struct Position {
    std::uint32_t piece;
    std::size_t offset;
  };
  static constexpr std::size_t maxPieces = 8192;
  static constexpr std::size_t partsPerSend = 64;

  void routeToGroup(Client& from, Frame& frame);
  void deliver(Client& to, Frame& frame, Undeliverable otherwise);
  void gather(Client& to, std::uint8_t* bytes, std::size_t length, Undeliverable otherwise);
  void sendAlone(Client& to, Frame& frame, Undeliverable otherwise);
  [[nodiscard]] bool queueAlone(Client& to, Frame& frame, std::size_t sent);
  void refuse(Client& unreached, Frame& frame, Undeliverable otherwise);
  void bounce(Client& from, Frame& frame, std::uint32_t unreached);

  void touch(Client& client);
  void sendQueue(Client& to);
  [[nodiscard]] Position sendPieces(Client& to, Position from);
  void advance(Position& position, std::size_t sent) const;
  void keepPieces(Client& to, Position from);
  void keepPiece(Client& to, const Piece& piece, std::size_t offset);
  void refuseFrames(Client& to, const Piece& piece, std::size_t at);
  void waitForRoom(Client& client, bool wanted);

  [[nodiscard]] bool hasRoom(const Client& client, std::size_t length) const;
  [[nodiscard]] bool queueCopy(Client& to, std::span<const std::uint8_t> head, std::span<const std::uint8_t> payload);
  void observe(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, std::span<const std::uint8_t> payload);

  Directory& directory_;
  const Poller& poller_;
  const Limits& limits_;
  const std::size_t& queuedTotal_;
  std::vector<Piece> pieces_;
  std::vector<Client*> touched_;
  std::vector<Client*> monitors_;
  std::vector<Client*> gone_;
  Totals totals_;
};

}  // namespace busd
