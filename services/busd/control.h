#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/message.h"
#include "services/busd/client.h"
#include "services/busd/directory.h"
#include "services/busd/limits.h"
#include "services/busd/router.h"

namespace busd {

// Error codes of refusals, beside those of platform/bus/field.h.
namespace refusal {
inline constexpr std::uint32_t idTaken = 0xfe0020;
inline constexpr std::uint32_t badValue = 0xfe0021;
inline constexpr std::uint32_t tooMany = 0xfe0022;
}  // namespace refusal

// Fields of control messages; docs/bus-protocol.md says which operation has which.
namespace field {
inline constexpr tn::u32_id operation{1};
inline constexpr tn::u32_id number{2};  // a program's id, or a group
inline constexpr tn::bool_id off{2};    // of `monitor`
inline constexpr tn::string_id name{3};
inline constexpr tn::message_array_id programs{4};
inline constexpr tn::u64_id frames{5};
inline constexpr tn::u64_id bytes{6};
inline constexpr tn::u64_id bounced{7};
inline constexpr tn::u64_id dropped{8};
inline constexpr tn::u64_id unobserved{9};
inline constexpr tn::u64_id queued{10};
inline constexpr tn::u64_id unfinished{11};
inline constexpr tn::u64_id framesDelivered{12};
inline constexpr tn::u64_id bytesDelivered{13};
}  // namespace field

// Serves the control operations: reads one control message, does what it asks and has it answered.
class Control {
 public:
  Control(Directory& directory, Router& router, const Limits& limits)
      : directory_(directory), router_(router), limits_(limits) {}

  enum class Verdict : std::uint8_t {
    served,   // answered, be it with a refusal
    refused,  // the answer refuses a join: the program is to be disconnected behind it
    broken,   // no control message: the program is to be disconnected
  };
  [[nodiscard]] Verdict handle(Client& from, std::span<const std::uint8_t> payload);

  // The flattened answer to a program that connects while there are too many.
  [[nodiscard]] static tn::message tooManyPrograms();

  // What the answer to `statistics` tells beside the router's own figures.
  void setUnfinishedBytes(std::size_t bytes) { unfinishedBytes_ = bytes; }

  // Lists are made once per turn, however often they are asked for in it.
  void endTurn();

 private:
  // Why something is refused; the text is a whole literal, or one with a number behind it.
  struct Refusal {
    std::uint32_t code;
    std::string text;
  };
  using Outcome = std::optional<Refusal>;

  [[nodiscard]] Verdict join(Client& from, const tn::message& request);
  [[nodiscard]] Outcome claimId(Client& from, std::uint32_t wanted);
  void serve(Client& from, std::uint32_t operation, const tn::message& request);
  [[nodiscard]] Outcome joinGroup(Client& from, const tn::message& request);
  [[nodiscard]] Outcome leaveGroup(Client& from, const tn::message& request);
  [[nodiscard]] Outcome monitor(Client& from, const tn::message& request);
  void answerOutcome(Client& from, std::uint32_t operation, std::optional<std::uint32_t> number,
                     const Outcome& outcome);
  [[nodiscard]] tn::message listPrograms() const;
  [[nodiscard]] tn::message statistics() const;

  Directory& directory_;
  Router& router_;
  const Limits& limits_;
  std::size_t unfinishedBytes_ = 0;
  std::optional<tn::message> list_;
  std::optional<tn::message> statistics_;
};

// A program's name as it is listed and logged: printable ASCII, at the most maxNameBytes, never empty.
[[nodiscard]] std::string cleanName(std::string_view name);

}  // namespace busd
