#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/bus/frame.h"
#include "platform/bus/message.h"
#include "tools/arguments.h"
#include "tools/names.h"

namespace tool {

// One frame that the broker has shown, and what is known of it. Its payload is what its sender made of it, a message or
// not.
struct Observed {
  std::uint32_t from;
  std::uint32_t to;
  tn::FrameKind kind;
  std::uint64_t milliseconds;  // since the monitor began
  std::span<const std::uint8_t> payload;
};

// Who is on the bus, by the broker's list.
class Programs {
 public:
  void set(const tn::message& list);
  // The broker was asked about this one: if its list did not name it, it is not there, and the broker need not be asked
  // again until a frame of its own is seen.
  void noteAsked(std::uint32_t id);
  void noteSender(std::uint32_t id) { absent_.erase(id); }
  [[nodiscard]] std::string_view nameOf(std::uint32_t id) const;  // empty: unknown
  [[nodiscard]] bool knows(std::uint32_t id) const { return names_.contains(id) || absent_.contains(id); }
  // Whether a program is the one that is meant by an id or a name.
  [[nodiscard]] bool is(std::uint32_t id, std::string_view meant) const;

 private:
  // Anybody may write to any number; when there are more, all are forgotten.
  static constexpr std::size_t mostAbsent = 4096;

  std::map<std::uint32_t, std::string> names_;
  std::set<std::uint32_t> absent_;
};

// What a message is about. An answer is about the command of its request, which it does not hold itself.
struct Subject {
  bool isAnswer = false;
  const HandlerShape* handler = nullptr;
  std::optional<std::uint32_t> command;  // nothing: the request was not seen
};

// Remembers requests until they are answered.
class Conversations {
 public:
  [[nodiscard]] Subject note(const Observed& frame, const tn::message& msg, const Programs& programs);

 private:
  // More than a program may have pending; one that is never answered goes away with all others.
  static constexpr std::size_t mostRequests = 65536;

  std::map<std::pair<std::uint32_t, std::uint32_t>, Subject> requests_;  // by asker and request number
};

// A bounced frame goes back to its sender with its paths as they were.
[[nodiscard]] inline bool isTurned(const Observed& frame) {
  return frame.kind == tn::FrameKind::bounced;
}

// Which frames a monitor is to show.
class Filter {
 public:
  // Returns what is wrong with the arguments, or nothing.
  [[nodiscard]] std::optional<std::string> read(const Arguments& arguments);
  [[nodiscard]] bool passes(const Observed& frame, const tn::message& msg, const Subject& subject,
                            const Programs& programs) const;

 private:
  enum class Kind : std::uint8_t { any, message, request, reply, error, bounced, control };
  struct KindName {
    std::string_view name;
    Kind kind;
  };
  static constexpr KindName kindNames[] = {
      {"message", Kind::message}, {"request", Kind::request}, {"reply", Kind::reply},
      {"error", Kind::error},     {"bounced", Kind::bounced}, {"control", Kind::control},
  };

  [[nodiscard]] bool passesPath(const Observed& frame, const tn::message& msg, const Programs& programs) const;
  [[nodiscard]] bool passesKind(const Observed& frame, const tn::message& msg) const;

  std::string program_;
  std::string from_;
  std::string to_;
  std::optional<PathText> path_;
  std::optional<std::uint32_t> command_;
  Kind kind_ = Kind::any;
};

// The frame for a person, or a message in the line form or as JSON that holds it; ends its last line.
[[nodiscard]] std::string renderObserved(const Observed& frame, const tn::message& msg, bool isMessage,
                                         const Subject& subject, const Programs& programs, Form form);

}  // namespace tool
