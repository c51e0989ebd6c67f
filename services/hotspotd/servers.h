#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/bus/handler.h"
#include "services/hotspotd/keeper.h"
#include "services/hotspotd/watch.h"

namespace hotspot {

// Keeps the hotspot's servers: each record is added to every server program at run time, and removed from it again. Its
// requests then come to the Portal.
//
// Records are read with getAll, and changed with addObj (whole), set (some fields) and removeObj. A change is stored
// first, and answered when the server programs have answered it or had their time for it; what they refuse is kept all
// the same, and told in the answer and with the record.
class Servers : public tn::Handler {
 public:
  static constexpr std::uint32_t id = 1;
  static constexpr std::uint32_t answerMs = 2000;  // for a server program
  static constexpr std::size_t maxChanges = 64;    // on their way at a time

  // The keeper and the looper must outlive this.
  Servers(Keeper& keeper, tn::Looper& looper);

  // To be called when this is registered with the looper.
  void start() { watch_.start(); }
  // A program asked for the records.
  void asked(std::uint32_t program) { watch_.asked(program); }

  void handleCmd(tn::message& msg) override;
  tn::message cmdGetAll(tn::message& msg) override;
  void unlinked() override { watch_.forget(); }

 private:
  // How the server programs took a record as it is now.
  struct Condition {
    std::string lastError;
    bool applied = false;
    std::uint64_t revision = 0;  // late answers to an earlier record say nothing any more
  };
  struct Refusal {
    std::uint32_t code;
    std::string text;
  };
  using Outcome = std::optional<std::string>;  // what the first one that refused said
  using Done = std::function<void(const Outcome&)>;

  void change(tn::message& msg);
  [[nodiscard]] std::optional<Refusal> keep(const tn::message& msg, bool whole);
  [[nodiscard]] std::optional<Refusal> remove(const tn::message& msg);
  void tell(const tn::message& request, const std::string& name);
  void give(std::uint32_t program);
  // To one program at least.
  void deliver(std::span<const std::uint32_t> programs, const tn::message& command, Done done);
  void settle(const std::string& name, std::uint64_t revision, const Outcome& outcome);

  Keeper& keeper_;
  Watch watch_;
  std::map<std::string, Condition, std::less<>> conditions_;  // by name of the record
  std::uint64_t lastRevision_ = 0;
  std::size_t changes_ = 0;
};

}  // namespace hotspot
