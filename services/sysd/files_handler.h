#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>

#include "platform/bus/handler.h"
#include "platform/bus/timer.h"
#include "services/sysd/file_store.h"
#include "services/sysd/listing.h"

namespace sysd {

// Lists the directories of the user store, makes, removes and renames what is in it; docs/services.md. What is in the
// files passes through the web server.
//
// A directory that is not read to its end at once is read on by turns with others, a piece per turn of the loop.
class FilesHandler : public tn::Handler {
 public:
  static constexpr std::uint32_t id = 2;
  // Read of a directory per turn.
  static constexpr std::size_t entriesPerTurn = 4096;
  static constexpr std::size_t mostListings = 16;
  static constexpr std::size_t mostListingsOfSession = 4;

  // Both must outlive this.
  FilesHandler(const FileStore& store, tn::TimerQueue& timers);

  void handleCmd(tn::message& msg) override;
  tn::message cmdGet(tn::message& msg) override;
  tn::message cmdAddObj(tn::message& msg) override;
  tn::message cmdRemoveObj(tn::message& msg, std::uint32_t object) override;
  tn::message cmdMoveObj(tn::message& msg, std::uint32_t object) override;
  void unlinked() override;

 private:
  struct Job {
    tn::message request;
    Listing listing;
  };

  // The answer; nothing when it comes later.
  [[nodiscard]] std::optional<tn::message> list(const tn::message& msg);
  [[nodiscard]] bool isTooBusyFor(const tn::message& msg) const;
  void onTurn();

  const FileStore& store_;
  tn::TimerQueue& timers_;
  std::list<Job> jobs_;  // the next one in front
  tn::Timer turn_;
};

}  // namespace sysd
