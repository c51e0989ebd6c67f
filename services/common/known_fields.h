#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/bus/message.h"
#include "platform/log.h"

namespace service {

// From here up fields belong to the bus.
inline constexpr std::uint32_t firstBusField = 0xfe0000;

// A field by its type and number, for lists of what a command may hold.
template <tn::FieldType T>
[[nodiscard]] constexpr std::uint32_t keyOf(tn::FieldId<T> id) {
  return static_cast<std::uint32_t>(T) | id.id;
}

// What is wrong with a command that holds a field which is not among the known ones, so that none is overlooked in
// silence; nothing when all are.
[[nodiscard]] inline std::optional<std::string> checkKnown(const tn::message& msg,
                                                           std::span<const std::uint32_t> known) {
  std::optional<std::string> problem;
  msg.forEach([&](const tn::message::Field& found) {
    const std::uint32_t key = static_cast<std::uint32_t>(found.type) | found.id;
    if (problem || found.id >= firstBusField || std::ranges::find(known, key) != known.end()) return;
    problem = "field ";
    problem->append(NumberText(found.id, 16)).append(" is not known with this type");
  });
  return problem;
}

}  // namespace service
